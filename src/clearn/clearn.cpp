#include "clearn/clearn.h"

#include <cstdlib>
#include <set>
#include <vector>

#include "common/log.h"
#include "common/singleton.h"
#include "common/utils.h"
#include "compress/compress_file.h"
#include "config/config_addition.h"
#include "config/config_clearn.h"
#include "file/fileclassify.h"
#include "file/filemanager.h"
#include "nuv_dir.h"
#include "nuv_file.h"
#include "nuv_time.h"

namespace {

const char kArchiveSuffix[] = "tgz";
const char kArchiveEnding[] = ".tgz";

// A difference that does not fit in 32 bits counts as elapsed.
bool Elapsed(uint64_t start, uint64_t interval) {
  const uint64_t difference = nuv_time_get_tick_cout() - start;
  return difference > UINT32_MAX || difference >= interval;
}

int KeepSeconds(int type) {
  const int keep = IsMaintainceLogType(static_cast<unsigned int>(type))
                       ? CClearnCfg::GetInstance()->GetTimeInterval()
                       : CAdditionCtrlor::GetInstance()->GetClearnDay(type);
  int seconds = 0;
  // A wrapped value would delete the wrong days; stopping is safer.
  if (__builtin_mul_overflow(keep, CClearn::kSecondsPerDay, &seconds)) {
    std::abort();
  }
  return seconds;
}

void DeleteExpiredArchives(int type, int keepSeconds) {
  std::vector<std::string> archives;
  if (!CSingleton<CFileManager>::GetInstance()
           .EnumFilesBySuffix(archives, kArchiveEnding, type)
           .IsSuccess()) {
    return;
  }
  for (const std::string& archive : archives) {
    const std::string day = CFileClassify::GetCompressFileTime(archive, kArchiveEnding);
    double seconds = 0;
    if (!CFileClassify::DifferTime(day, CurrentDay(), seconds) || seconds < keepSeconds) {
      continue;
    }
    if (nuv_file_remove(archive.c_str()) != 0) {
      ZLOG_ERROR("[CClearn]::delete dir failed. dir = %s", archive.c_str());
    } else {
      ZLOG_INFO("[CClearn]::delete dir success. dir = %s", archive.c_str());
    }
  }
}

void DeleteDayDirectory(const std::string& dir) {
  if (dir.empty() || is_file_exist(dir.c_str()) == 0) {
    return;
  }
  if (nuv_dirutils_rmdir(dir.c_str()) != 0) {
    ZLOG_ERROR("[CClearn]::delete dir failed. dir = %s", dir.c_str());
  } else {
    ZLOG_INFO("[CClearn]::delete dir success. dir = %s", dir.c_str());
  }
}

void CompressDayDirectory(const std::string& dir) {
  // No stream may keep a file of the day open while it is packed and removed.
  CloseFiles(dir);
  RepairStreams(dir);
  if (GenCompressFile(dir.c_str(), dir.c_str(), kArchiveSuffix, CClearn::kCompressTimeout) != 0) {
    ZLOG_ERROR("[CClearn]:: dir compress failed. dir = %s", dir.c_str());
    return;
  }
  ZLOG_INFO("[CClearn]:: dir compress success. dir = %s", dir.c_str());
  nuv_dirutils_rmdir(dir.c_str());
}

void ClearnDayDirectories(int type, int keepSeconds) {
  std::vector<std::string> files;
  if (!CSingleton<CFileManager>::GetInstance().EnumAllFiles(files, type).IsSuccess()) {
    return;
  }
  // Every file of a past day leads to its day directory; it is packed once per pass.
  std::set<std::string> handled;
  for (const std::string& file : files) {
    CFileClassify classify;
    if (!CFileClassify::ParseFilePath(file, classify)) {
      ZLOG_ERROR("[CClearn]::parse file path failed. file = %s", file.c_str());
      continue;
    }
    double seconds = 0;
    if (!CFileClassify::DifferTime(classify.GetTime(), CurrentDay(), seconds)) {
      continue;
    }
    if (seconds >= keepSeconds) {
      DeleteDayDirectory(classify.GetTimePath());
    } else if (seconds >= CClearn::kSecondsPerDay) {
      const std::string dir = GetDirectory(classify.GetPath());
      if (handled.insert(dir).second) {
        CompressDayDirectory(dir);
      }
    }
  }
}

}  // namespace

CClearn::CClearn() {
  flushStart_ = nuv_time_get_tick_cout();
  cleanStart_ = flushStart_;
}

CClearn::~CClearn() { StopClearn(); }

bool CClearn::StartClearn() {
  if (nuv_atomic32_get(&running_) == 1) {
    return true;
  }
  RepairToday();
  if (nuv_thread_start(&thread_, ClearnThread, this) != 0) {
    return false;
  }
  nuv_atomic32_set(&running_, 1);
  return true;
}

void CClearn::StopClearn() {
  if (nuv_atomic32_get(&running_) == 1) {
    nuv_thread_cancel(thread_);
    thread_ = nullptr;
    nuv_atomic32_set(&running_, 0);
  }
}

bool CClearn::IsFlushTickCount() const { return Elapsed(flushStart_, kFlushInterval); }

bool CClearn::IsCleanTickCount() const { return Elapsed(cleanStart_, kCleanInterval); }

void CClearn::SetFlushStartTickCount() { flushStart_ = nuv_time_get_tick_cout(); }

void CClearn::SetCleanStartTickCount() { cleanStart_ = nuv_time_get_tick_cout(); }

void CClearn::ClearnFiles(int type) {
  const int keepSeconds = KeepSeconds(type);
  DeleteExpiredArchives(type, keepSeconds);
  ClearnDayDirectories(type, keepSeconds);
}

void CClearn::ClearnAllTypes() {
  for (int type : kClearnTypes) {
    ClearnFiles(type);
  }
}

void CClearn::RepairToday() {
  std::set<std::string> bases = {GetStoreBaseDirectory(512), GetStoreBaseDirectory(0)};
  for (int type : CAdditionCtrlor::GetInstance()->GetTypes()) {
    bases.insert(GetStoreBaseDirectory(static_cast<unsigned int>(type)));
  }
  for (std::string base : bases) {
    // Spelled as the streams spell their directories, so open ones are recognised.
    if (base.empty() || base.back() != '/') {
      base.push_back('/');
    }
    RepairStreams(base + "/" + CurrentDay());
  }
}

void* ClearnThread(void* arg) {
  CClearnCfg::GetInstance()->GetTimeInterval();
  if (arg == nullptr) {
    return nullptr;
  }
  CClearn* clearn = static_cast<CClearn*>(arg);
  // Cancellation unwinds the thread at nuv_sleep (or inside a compression's wait); the start
  // ticks are set after the work, so each interval counts from the end of the last one.
  for (;;) {
    if (clearn->IsFlushTickCount()) {
      CSingleton<CFileManager>::GetInstance().FileUnitsFlush();
      clearn->SetFlushStartTickCount();
    }
    if (clearn->IsCleanTickCount()) {
      CClearn::ClearnAllTypes();
      clearn->SetCleanStartTickCount();
    }
    nuv_sleep(CClearn::kPauseSeconds, 0);
  }
}

void CloseFiles(std::string directory) {
  std::vector<std::string> files;
  if (!EnumFiles(directory, files)) {
    return;
  }
  for (const std::string& file : files) {
    CFileClassify classify;
    if (CFileClassify::ParseFilePath(file, classify)) {
      CSingleton<CFileManager>::GetInstance().CloseFile(classify);
    } else {
      ZLOG_ERROR("[CClearn]::parse file path failed. file = %s", file.c_str());
    }
  }
}

void RepairStreams(const std::string& directory) {
  std::vector<std::string> files;
  if (!EnumFiles(directory, files)) {
    return;
  }
  std::set<std::string> repaired;
  for (const std::string& file : files) {
    CFileClassify classify;
    if (CFileClassify::ParseFilePath(file, classify) &&
        repaired.insert(classify.GetIndexPath()).second) {
      CSingleton<CFileManager>::GetInstance().RepairStream(classify);
    }
  }
}
