#include "handler/logdata.h"

#include <jansson.h>

#include <cstdlib>
#include <memory>

#include "common/jsonutil.h"
#include "nuv_comm.h"

namespace {

struct JsonRelease {
  void operator()(json_t* node) const { json_decref(node); }
};

}  // namespace

CLogData::CLogData(const std::string& name, const std::string& id, unsigned int pid,
                   unsigned int type, const std::string& context)
    : name_(name), id_(id), pid_(pid), type_(type), context_(context) {}

std::string CLogData::LogDataToString() const {
  std::unique_ptr<json_t, JsonRelease> root(json_object());
  if (!root) {
    return std::string();
  }
  // A member that cannot be made (a text that is not UTF-8) fails the whole record: the
  // receiver could not read it back anyway.
  if (json_object_set_new(root.get(), "name", json_string(name_.c_str())) != 0 ||
      json_object_set_new(root.get(), "id", json_string(id_.c_str())) != 0 ||
      json_object_set_new(root.get(), "type", json_integer(static_cast<json_int_t>(type_))) != 0 ||
      json_object_set_new(root.get(), "pid", json_integer(static_cast<json_int_t>(pid_))) != 0 ||
      json_object_set_new(root.get(), "context", json_string(context_.c_str())) != 0) {
    return std::string();
  }
  char* text = json_dumps(root.get(), 0);
  if (text == nullptr) {
    return std::string();
  }
  std::string out(text);
  std::free(text);
  return out;
}

bool CLogData::StringToLogData(const std::string& text) {
  if (text.empty()) {
    return false;
  }
  JsonUtil document;
  if (document.JsonLoadString(text) != JsonUtil::kOk) {
    return false;
  }
  int number = 0;
  if (document.JsonGetInteger("/type", &number, -1) != JsonUtil::kOk) {
    return false;
  }
  type_ = static_cast<uint32_t>(number);
  if (document.JsonGetInteger("/pid", &number, -1) != JsonUtil::kOk) {
    return false;
  }
  pid_ = static_cast<uint32_t>(number);
  return document.JsonGetString("/name", name_, -1) == JsonUtil::kOk &&
         document.JsonGetString("/id", id_, -1) == JsonUtil::kOk &&
         document.JsonGetString("/context", context_, -1) == JsonUtil::kOk;
}

bool PostMessage(const std::string& topic, const std::string& message) {
  comm_data* data =
      nuv_comm_new_data(message.data(), static_cast<unsigned int>(message.size()));
  if (data == nullptr) {
    return false;
  }
  const int result = nuv_comm_post(topic.c_str(), data);
  nuv_comm_delete_data(data);
  return result == 0;
}
