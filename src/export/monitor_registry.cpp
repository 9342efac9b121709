#include "export/monitor_registry.h"

#include <jansson.h>
#include <time.h>

#include <memory>
#include <vector>

#include "common/reserved.h"
#include "notify/find.h"

namespace {

using JsonPtr = std::unique_ptr<json_t, decltype(&json_decref)>;

std::string NowIso() {
  char text[40] = {};
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local);
  return text;
}

const char* KindOf(int type) {
  switch (type) {
    case CMonitorData::kTypeExact: return "exact";
    case CMonitorData::kTypeExactDepend: return "exact-dependent";
    case CMonitorData::kTypeImage: return "template";
    case CMonitorData::kTypeImageDepend: return "template-dependent";
    default: return "invalid";
  }
}

// The targets that have (or get at once) a worker: the whole machine and the batch of all
// processes always run; an exact pid while it runs its image; every process of a template.
json_t* TargetsNow(CMonitorData monitor, CProcessFinder& finder) {
  json_t* targets = json_array();
  std::vector<unsigned int> pids;
  const unsigned int pid = static_cast<unsigned int>(monitor.pid);
  const bool exact = monitor.data_type == CMonitorData::kTypeExact ||
                     monitor.data_type == CMonitorData::kTypeExactDepend;
  if ((monitor.image == kSystemImage && pid == kSystemPid) ||
      (monitor.image == kProcessPointImage && pid == kProcessPointPid) ||
      (exact && finder.IsProcessExist(monitor.image, pid))) {
    pids.push_back(pid);
  } else if (!exact) {
    finder.FindProcess(monitor.image, pids);
  }
  for (unsigned int found : pids) {
    json_t* target = json_object();
    json_object_set_new(target, "image", json_string(monitor.image.c_str()));
    json_object_set_new(target, "pid", json_integer(found));
    json_array_append_new(targets, target);
  }
  return targets;
}

}  // namespace

void CMonitorRegistry::Filed(const CMonitorData& monitor, const char* source) {
  std::lock_guard<std::mutex> hold(lock_);
  Entry& entry = entries_[monitor.id];
  entry.monitor = monitor;
  entry.source = source;
  entry.filed = true;
}

void CMonitorRegistry::Removed(const std::string& id) {
  std::lock_guard<std::mutex> hold(lock_);
  const auto found = entries_.find(id);
  if (found == entries_.end()) return;
  if (found->second.fired == 0) {
    entries_.erase(found);
  } else {
    found->second.filed = false;
  }
}

void CMonitorRegistry::Fired(const std::string& id, const std::string& name, unsigned int pid,
                             const std::string& context) {
  std::lock_guard<std::mutex> hold(lock_);
  Entry& entry = entries_[id];
  if (entry.monitor.id.empty()) entry.monitor.id = id;
  ++entry.fired;
  entry.lastFired = NowIso();
  entry.lastName = name;
  entry.lastPid = pid;
  entry.evidence = context;
}

std::string CMonitorRegistry::MonitorsJson() {
  std::map<std::string, Entry> entries;
  {
    std::lock_guard<std::mutex> hold(lock_);
    entries = entries_;
  }
  CProcessFinder finder;  // outside the lock: it reads all of /proc
  JsonPtr list(json_array(), json_decref);
  for (const auto& item : entries) {
    const Entry& entry = item.second;
    const CMonitorData& m = entry.monitor;
    json_t* row = json_object();
    json_object_set_new(row, "id", json_string(m.id.c_str()));
    json_object_set_new(row, "kind", json_string(entry.filed ? KindOf(m.data_type) : "gone"));
    json_object_set_new(row, "source", json_string(entry.source.c_str()));
    json_object_set_new(row, "focus", json_string(m.focus.c_str()));
    json_object_set_new(row, "condition", json_string(m.condition.c_str()));
    json_object_set_new(row, "handler", json_string(m.handler.c_str()));
    json_object_set_new(row, "dependent_id", json_string(m.dependent_id.c_str()));
    json_t* targets = entry.filed ? TargetsNow(m, finder) : json_array();
    json_object_set_new(row, "pending", json_boolean(entry.filed && json_array_size(targets) == 0));
    json_object_set_new(row, "targets", targets);
    json_object_set_new(row, "fired", json_integer(static_cast<json_int_t>(entry.fired)));
    if (entry.fired != 0) {
      json_object_set_new(row, "last_fired", json_string(entry.lastFired.c_str()));
      json_object_set_new(row, "last_name", json_string(entry.lastName.c_str()));
      json_object_set_new(row, "last_pid", json_integer(entry.lastPid));
      json_object_set_new(row, "evidence", json_string(entry.evidence.c_str()));
    }
    json_array_append_new(list.get(), row);
  }
  char* text = json_dumps(list.get(), JSON_COMPACT);
  std::string out = text ? text : "[]";
  free(text);
  return out;
}
