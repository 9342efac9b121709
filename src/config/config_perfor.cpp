#include "config/config_perfor.h"

#include <cstdio>

#include "common/log.h"

namespace {

const char kMonitorArray[] = "/default/perf_monitor";
const char kElementPrefix[] = "/default/perf_monitor/%d/";

// Reads the eleven keys in their fixed order below `base` ("/" for a message, the element's
// path for the file), stopping at the first one that is missing or not a string.
bool ReadMonitorFields(const JsonUtil& doc, const std::string& base, CMonitorData& m) {
  auto read = [&](const char* key, std::string& out) {
    return doc.JsonGetString(base + key, out, -1) == JsonUtil::kOk;
  };
  // "agent_id" shares the id line on purpose.
  if (!read("id", m.id) || !read("agent_id", m.agent_id)) {
    ZLOG_ERROR("[CPerforMonitorCfg]::Parse monitor id failed.");
    return false;
  }
  if (!read("name", m.name)) {
    ZLOG_ERROR("[CPerforMonitorCfg]::Parse monitor name failed, id = %s.", m.id.c_str());
    return false;
  }
  if (!read("subscriber", m.subscriber)) {
    ZLOG_ERROR("[CPerforMonitorCfg]::Parse monitor subscriber failed, id = %s.", m.id.c_str());
    return false;
  }
  if (!read("version", m.version)) {
    ZLOG_ERROR("[CPerforMonitorCfg]::Parse monitor version failed, id = %s.", m.id.c_str());
    return false;
  }
  if (!read("product", m.product)) {
    ZLOG_ERROR("[CPerforMonitorCfg]::Parse monitor product failed, id = %s.", m.id.c_str());
    return false;
  }
  if (!read("product_version", m.product_version)) {
    ZLOG_ERROR("[CPerforMonitorCfg]::Parse monitor product version failed, id = %s.",
               m.id.c_str());
    return false;
  }
  if (!read("focus", m.focus)) {
    ZLOG_ERROR("[CPerforMonitorCfg]::Parse monitor focus failed, id = %s.", m.id.c_str());
    return false;
  }
  if (!read("handler", m.handler)) {
    ZLOG_ERROR("[CPerforMonitorCfg]::Parse monitor handler failed, id = %s.", m.id.c_str());
    return false;
  }
  if (!read("condition", m.condition)) {
    ZLOG_ERROR("[CPerforMonitorCfg]::Parse monitor condition failed, id = %s.", m.id.c_str());
    return false;
  }
  if (!read("dependent_id", m.dependent_id)) {
    ZLOG_ERROR("[CPerforMonitorCfg]::Parse monitor dependent id failed, id = %s.",
               m.id.c_str());
    return false;
  }
  return true;
}

}  // namespace

std::string CPerforMonitorCfg::FormatIndexPath(const std::string& pattern, int index) {
  char buffer[1024] = {0};
  std::snprintf(buffer, sizeof(buffer), pattern.c_str(), index);
  return std::string(buffer);
}

bool CPerforMonitorCfg::Parse(JsonUtil& document) {
  int count = 0;
  if (document.JsonGetArraySize(kMonitorArray, &count) != JsonUtil::kOk) {
    return false;
  }
  for (int index = 0; index < count; ++index) {
    CMonitorData monitor;
    if (!ReadMonitorFields(document, FormatIndexPath(kElementPrefix, index), monitor)) {
      continue;
    }
    if (monitor.CheckValid().code != 0) {
      ZLOG_ERROR("[CPerforMonitorCfg]::Parse monitor check valid failed, id = %s.",
                 monitor.id.c_str());
      continue;
    }
    bool listed = false;
    for (const CMonitorData& existing : monitors_) {
      if (existing.id == monitor.id) {
        listed = true;
        break;
      }
    }
    // A repeated id is dropped silently: the first definition wins.
    if (listed) {
      continue;
    }
    monitors_.push_back(monitor);
    ZLOG_INFO("[CPerforMonitorCfg]::Insert monitor success, id = %s.", monitor.id.c_str());
  }
  return true;
}

bool CPerforMonitorCfg::ParseRegisterJson(const std::string& text, CMonitorData& out) {
  out.Clear();
  JsonUtil doc;
  if (doc.JsonLoadString(text) != JsonUtil::kOk) {
    out.Clear();
    return false;
  }
  if (!ReadMonitorFields(doc, "/", out)) {
    out.Clear();
    return false;
  }
  if (out.CheckValid().code != 0) {
    ZLOG_ERROR("[CPerforMonitorCfg]::check monitor valid failed, id = %s.", out.id.c_str());
    out.Clear();
    return false;
  }
  return true;
}

bool CPerforMonitorCfg::ParseUnRegisterJson(const std::string& text, std::string& id) {
  JsonUtil doc;
  if (doc.JsonLoadString(text) != JsonUtil::kOk) {
    return false;
  }
  return doc.JsonGetString("/id", id, -1) == JsonUtil::kOk;
}
