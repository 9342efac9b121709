#include "daemon_query.h"

#include <unistd.h>

#include <cstdint>
#include <memory>
#include <mutex>

#include "bus_dir.h"
#include "nuv_comm.h"
#include "nuv_maintenance.h"
#include "result_word.h"

namespace nuvctl {
namespace {

struct Answer {
  std::mutex lock;
  std::string text;
  bool got = false;
};

int TakeAnswer(comm_data* request, comm_data* /*reply*/, void* context) {
  Answer* answer = static_cast<Answer*>(context);
  void* data = nullptr;
  unsigned int length = 0;
  if (nuv_comm_get_data(request, &data, &length) != 0) return static_cast<int>(NUV_MAINT_INVALID_PARAMETER);
  std::lock_guard<std::mutex> hold(answer->lock);
  answer->text.assign(static_cast<const char*>(data), length);
  answer->got = true;
  return 0;
}

// Joins the bus for one scope.
class BusScope {
 public:
  BusScope() : ok_(nuv_comm_init() == 0) {}
  ~BusScope() {
    if (ok_) nuv_comm_uninit();
  }
  BusScope(const BusScope&) = delete;
  BusScope& operator=(const BusScope&) = delete;
  bool ok() const { return ok_; }

 private:
  bool ok_;
};

}  // namespace

bool AskDaemon(const std::string& query, std::string& answer, std::string& error) {
  BusScope bus;
  if (!bus.ok()) {
    error = "cannot join the message bus";
    return false;
  }
  const std::string replyTopic = "nuvctl.reply." + std::to_string(getpid());
  Answer reply;
  int result = nuv_comm_register(replyTopic.c_str(), TakeAnswer, &reply);
  if (result == 0) {
    const std::string question = "{\"query\":\"" + query + "\",\"reply\":\"" + replyTopic + "\"}";
    std::unique_ptr<comm_data, decltype(&nuv_comm_delete_data)> data(
        nuv_comm_new_data(question.data(), static_cast<unsigned int>(question.size())),
        nuv_comm_delete_data);
    result = data ? nuv_comm_post("maintenance:status", data.get()) : NUV_COMM_E_SYSTEM;
    nuv_comm_unregister(replyTopic.c_str());
  }
  std::lock_guard<std::mutex> hold(reply.lock);
  if (result == 0 && reply.got) {
    answer = reply.text;
    return true;
  }
  error = "maintenance:status answered " + nuvtools::DescribeResult(static_cast<uint32_t>(result)) +
          "; bus directory " + nuvtools::DescribeBusDir(nuvtools::FindBusDir());
  return false;
}

}  // namespace nuvctl
