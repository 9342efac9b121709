// The record a fired monitor posts to its subscriber's handler topic, and the one call through
// which the engine posts any text on the bus.
#ifndef NUV_HANDLER_LOGDATA_H
#define NUV_HANDLER_LOGDATA_H

#include <cstdint>
#include <string>

// Text form: {"name": <string>, "id": <string>, "type": <integer>, "pid": <integer>,
// "context": <string>}. Readers must not depend on the member order.
class CLogData {
 public:
  CLogData() = default;
  CLogData(const std::string& name, const std::string& id, unsigned int pid, unsigned int type,
           const std::string& context);

  std::string GetName() const { return name_; }
  std::string GetID() const { return id_; }
  std::string GetContext() const { return context_; }
  unsigned int GetPid() const { return pid_; }
  unsigned int GetType() const { return type_; }
  void SetName(const std::string& name) { name_ = name; }
  void SetPid(unsigned int pid) { pid_ = pid; }

  // The text form; empty when it cannot be made.
  std::string LogDataToString() const;
  // Reads type, pid, name, id and context in that order and stops at the first that is missing
  // or of the wrong type: the fields read before it keep their new values.
  bool StringToLogData(const std::string& text);

 private:
  std::string name_;
  std::string id_;
  uint32_t pid_ = 0;
  uint32_t type_ = 0;
  std::string context_;
};

// Posts `message` to `topic`; true exactly when the bus reports 0 (the handler's result for a
// served topic).
bool PostMessage(const std::string& topic, const std::string& message);

#endif
