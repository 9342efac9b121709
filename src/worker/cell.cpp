#include "worker/cell.h"

#include <cstdlib>

#include "common/log.h"
#include "common/per_thread.h"
#include "common/utils.h"
#include "worker/express.h"

namespace {

// Members whose value cannot be made (a text that is not UTF-8, a NaN) are left out rather
// than failing the whole record.
void SetString(json_t* object, const char* key, const std::string& value) {
  json_object_set_new(object, key, json_string(value.c_str()));
}

void SetInteger(json_t* object, const char* key, json_int_t value) {
  json_object_set_new(object, key, json_integer(value));
}

void SetReal(json_t* object, const char* key, double value) {
  json_object_set_new(object, key, json_real(value));
}

// Unsigned 32-bit figures are zero-extended; 64-bit ones become the library's signed integer.
json_int_t U32(uint32_t value) { return static_cast<json_int_t>(value); }
json_int_t U64(uint64_t value) { return static_cast<json_int_t>(value); }

void FillHeader(json_t* header, const CMonitorData& monitor) {
  SetString(header, "id", monitor.id);
  SetString(header, "name", monitor.name);
  SetString(header, "subscriber", monitor.subscriber);
  SetString(header, "version", monitor.version);
  SetString(header, "product", monitor.product);
  SetString(header, "product_version", monitor.product_version);
  SetString(header, "focus", monitor.focus);
  SetString(header, "condition", monitor.condition);
  if (!monitor.dependent_id.empty()) {
    SetString(header, "depend_id", monitor.dependent_id);
  }
  SetString(header, "focus", monitor.focus);
  SetString(header, "handler", monitor.handler);
  SetString(header, "time", GenerateLocalTime());
  SetString(header, "agent_id", monitor.agent_id);
}

// The texts of `info`, shared with the cell this thread made last when they are the same: the
// cells of one sample are made one after another for every worker of its process.
std::shared_ptr<const ProcessText> TextOf(const ProcessInfo& info) {
  struct Last {
    std::shared_ptr<const ProcessText> text;
  };
  std::shared_ptr<const ProcessText>& last = PerThread<Last>().text;
  if (last == nullptr || last->path != info.path || last->image != info.image ||
      last->commandline != info.commandline) {
    last = std::make_shared<const ProcessText>(
        ProcessText{info.image, info.path, info.commandline});
  }
  return last;
}

// The members shared by the process form and the all-process form, after the two memory
// figures whose order differs between them.
template <typename Figures>
void FillProcessTail(json_t* body, const Figures& info, const std::string& image,
                     const std::string& path, const std::string& commandline) {
  SetInteger(body, "threads", U32(info.threads));
  SetInteger(body, "handles", U32(info.handles));
  SetInteger(body, "pid", U32(info.pid));
  SetInteger(body, "parentid", U32(info.parentid));
  SetInteger(body, "cputime", U64(info.cputime));
  SetInteger(body, "createtime", U32(info.createtime));
  SetInteger(body, "readbytes", U64(info.readbytes));
  SetInteger(body, "writebytes", U64(info.writebytes));
  SetString(body, "commandline", commandline);
  SetString(body, "image", image);
  SetString(body, "path", path);
}

template <typename Figures>
void FillTimes(json_t* body, const Figures& info) {
  SetReal(body, "cpu", static_cast<double>(info.cpu));
  SetInteger(body, "usertime", U64(info.usertime));
  SetInteger(body, "kerneltime", U64(info.kerneltime));
  SetInteger(body, "totaltime", U64(info.totaltime));
}

}  // namespace

CError CCell::Evaluate(CExpress& express, const std::string& condition) {
  express.SetExpress(condition);
  CError result = express.EvalExpress(hit_);
  if (!result.IsSuccess()) {
    ZLOG_ERROR("[CSlidingWindow]::EvalExpress failed. code = %d, desc = %s, condition = %s.",
               result.code, result.desc.c_str(), condition.c_str());
    return result;
  }
  ZLOG_DEBUG("[CSlidingWindow]::EvalExpress success. condition = %s.", condition.c_str());
  return result;
}

void CCell::Render(const CMonitorData& monitor, json_t* body, std::string& out) {
  json_t* root = json_object();
  json_t* header = json_object();
  if (root == nullptr || header == nullptr || body == nullptr) {
    json_decref(root);
    json_decref(header);
    json_decref(body);
    return;
  }
  FillHeader(header, monitor);
  json_object_set_new(root, "header", header);
  json_object_set_new(root, "body", body);
  char* text = json_dumps(root, 0);
  json_decref(root);
  if (text == nullptr) {
    return;
  }
  out = text;
  std::free(text);
  if (out.empty() || out.back() != '\n') {
    out.push_back('\n');
  }
}

void CCell::GetString(const CMonitorData& /*monitor*/, std::string& out) { out.clear(); }

CError CProcessCell::ConstructCell(const ProcessInfo& info, const std::string& condition) {
  CExpress express;
  return ConstructCell(info, condition, express);
}

CError CProcessCell::ConstructCell(const ProcessInfo& info, const std::string& condition,
                                   CExpress& express) {
  figures_ = info;  // the figures only
  text_ = TextOf(info);
  express.SetAllValue(true);
  express.SetCpuValue(figures_.cpu);
  express.SetHandleValue(figures_.handles);
  express.SetThreadValue(figures_.threads);
  express.SetMemoryValue(static_cast<uint32_t>(figures_.memory));
  express.SetWIoValue(figures_.iowspeed);
  express.SetRIoValue(figures_.iorspeed);
  return Evaluate(express, condition);
}

void CProcessCell::GetString(const CMonitorData& monitor, std::string& out) {
  json_t* body = json_object();
  if (body != nullptr) {
    FillTimes(body, figures_);
    SetInteger(body, "memorycommit", U64(figures_.memorycommit));
    SetInteger(body, "memory", U64(figures_.memory));
    SetInteger(body, "iorspeed", U32(figures_.iorspeed));
    SetInteger(body, "iowspeed", U32(figures_.iowspeed));
    json_object_set_new(body, "hit", json_boolean(hit_));
    FillProcessTail(body, figures_, text_->image, text_->path, text_->commandline);
  }
  Render(monitor, body, out);
}

CError CSystemCell::ConstructCell(const SystemInfo& info, const std::string& condition) {
  CExpress express;
  return ConstructCell(info, condition, express);
}

CError CSystemCell::ConstructCell(const SystemInfo& info, const std::string& condition,
                                  CExpress& express) {
  info_ = info;
  const uint64_t total = info_.memtotal;
  const uint64_t available = info_.memavai;
  express.SetAllValue(true);
  express.SetCpuValue(info_.cpu);
  express.SetMemoryValue(static_cast<uint32_t>(total) - static_cast<uint32_t>(available));
  express.SetWIoValue(0);
  express.SetRIoValue(0);
  return Evaluate(express, condition);
}

void CSystemCell::GetString(const CMonitorData& monitor, std::string& out) {
  json_t* body = json_object();
  if (body != nullptr) {
    // SystemInfo is packed: every member is read by value.
    const uint64_t total = info_.memtotal;
    const uint64_t available = info_.memavai;
    SetReal(body, "cpu", static_cast<double>(info_.cpu));
    SetInteger(body, "procnum", U32(info_.procnum));
    SetInteger(body, "handlenum", U32(info_.handlenum));
    SetInteger(body, "threadnum", U32(info_.threadnum));
    SetInteger(body, "memory", U64(total - available));
    SetInteger(body, "memtotal", U64(total));
    SetInteger(body, "memavai", U64(available));
    SetInteger(body, "cpunum", U32(info_.cpunum));
    SetReal(body, "swap_usage", static_cast<double>(info_.swap_usage));
    SetInteger(body, "swap_used", U64(info_.swap_used));
    SetInteger(body, "swap_total", U64(info_.swap_total));
    SetReal(body, "cpu_iowait_percent", static_cast<double>(info_.cpu_iowait_percent));
  }
  Render(monitor, body, out);
}

CError CAllProcessCell::ConstructCell(const std::vector<ProcessInfo>& infos,
                                      const std::string& condition) {
  CExpress express;
  return ConstructCell(infos, condition, express);
}

CError CAllProcessCell::ConstructCell(const std::vector<ProcessInfo>& infos,
                                      const std::string& condition, CExpress& express) {
  infos_ = infos;
  express.SetAllValue(true);
  return Evaluate(express, condition);
}

void CAllProcessCell::GetString(const CMonitorData& monitor, std::string& out) {
  json_t* body = json_array();
  if (body != nullptr) {
    for (const ProcessInfo& info : infos_) {
      json_t* item = json_object();
      if (item == nullptr) {
        continue;
      }
      FillTimes(item, info);
      SetInteger(item, "memory", U64(info.memory));
      SetInteger(item, "memorycommit", U64(info.memorycommit));
      SetInteger(item, "iorspeed", U32(info.iorspeed));
      SetInteger(item, "iowspeed", U32(info.iowspeed));
      FillProcessTail(item, info, info.image, info.path, info.commandline);
      json_array_append_new(body, item);
    }
  }
  Render(monitor, body, out);
}
