#include "worker/workermanager.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <jansson.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/jsonutil.h"
#include "common/utils.h"
#include "config/config_collect.h"
#include "file/file_test_support.h"
#include "handler/topicposter.h"

namespace {

using Ids = std::vector<std::string>;
const char kTopic[] = "workermanager:posts";

// The bus, with kTopic collecting the monitor ids of the records posted to it.
class BusEnvironment : public filetest::BusEnvironment {
 public:
  BusEnvironment() : filetest::BusEnvironment(false) {}
  void SetUp() override {
    filetest::BusEnvironment::SetUp();
    ASSERT_EQ(nuv_comm_register(kTopic, Receive, nullptr), 0);
  }
  static Ids Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(ids_, {});
  }

 private:
  static int Receive(comm_data* request, comm_data*, void*) {
    void* bytes = nullptr;
    unsigned int length = 0;
    if (nuv_comm_get_data(request, &bytes, &length) != 0) return -1;
    json_t* root = json_loadb(static_cast<const char*>(bytes), length, 0, nullptr);
    const char* id = json_string_value(json_object_get(root, "id"));
    std::lock_guard<std::mutex> lock(mutex_);
    ids_.push_back(id != nullptr ? id : "<bad record>");
    json_decref(root);
    return 0;
  }
  static inline std::mutex mutex_;
  static inline Ids ids_;
};
const ::testing::Environment* const kBus =
    ::testing::AddGlobalTestEnvironment(new BusEnvironment);

// One slot and an "A" condition: every sample a worker executes on is posted.
CMonitorData Monitor(const std::string& id, const std::string& image, int pid,
                     const std::string& dependent = "") {
  JsonUtil doc;
  EXPECT_EQ(doc.JsonLoadString(R"({"default": {"collect_sdk": {"frequency": 5, )"
                               R"("monitor_type": 31, "hit_rate": 50}}})"),
            0);
  EXPECT_TRUE(CCollectSdkCfg::GetInstance()->Parse(doc));
  CMonitorData m;
  m.id = id, m.subscriber = "sub", m.focus = image + ":" + std::to_string(pid);
  m.handler = kTopic, m.condition = "A/5", m.dependent_id = dependent;
  m.image = image, m.pid = pid, m.pid_text = std::to_string(pid);
  return m;
}

CError Add(CWorkerManager& manager, const CMonitorData& monitor) {
  auto* worker = new CWorker;
  const CError created = manager.CreateWorker(monitor, worker);
  if (!created.IsSuccess()) {
    delete worker;
    return created;
  }
  return manager.InsertWorker(worker);
}

ProcessInfo Process(const std::string& path, uint32_t pid) {
  ProcessInfo p;
  p.pid = pid, p.image = "demo.bin", p.path = path;
  return p;
}

TEST(CWorkerManager, RefusedParameters) {
  CWorkerManager manager;
  CMonitorData bad = Monitor("a", "system", 0);
  bad.condition = "C>80";
  CWorker worker;
  std::vector<CError> errors;
  const std::vector<std::string> lines = nuvtest::CaptureMessages([&] {
    errors = {manager.CreateWorker(Monitor("a", "system", 0), nullptr),
              manager.InsertWorker(nullptr), manager.CreateWorker(bad, &worker),
              Add(manager, Monitor("o", "system", 0, "missing"))};
  });
  const std::vector<std::pair<int, std::string>> expected = {
      {102, "parameter check error"}, {102, "parameter check error"},
      {106, "express failed, express = C>80"}, {109, "generate worker or insert worker failed"}};
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(std::pair(errors.at(i).code, errors.at(i).desc), expected[i]);
  }
  EXPECT_EQ(worker.GetKey() + worker.GetWorkerID(), "");
  for (const char* line :
       {"[WARN] [CWorkerManager]::CreateWorker param error.",
        "[WARN] [CWorkerManager]::InsertWorker param error.",
        "[ERROR] [CWorkerManager]::CreateWorker failed. code = 106, desc = express failed, "
        "express = C>80.",
        "[ERROR] [CWorkerManager]::InsertWorker failed. code = 109, desc = generate worker or "
        "insert worker failed."}) {
    EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1) << line;
  }
  EXPECT_FALSE(manager.FindWorker(CreateKey("system", 0), "o"));
}

TEST(CWorkerManager, InsertFindDispatchDelete) {
  const std::string sys = CreateKey("system", 0), demo = CreateKey("/opt/demo.bin", 4242);
  const std::string y = CreateKey("/opt/y.bin", 1), z = CreateKey("/opt/z.bin", 2);
  CWorkerManager manager;
  // Two roots carry "x"; "n" is nested in a worker of its own id.
  for (const CMonitorData& m :
       {Monitor("a", "system", 0), Monitor("b", "system", 0), Monitor("c", "/opt/demo.bin", 4242),
        Monitor("p", "processpoint", 3), Monitor("d", "system", 0, "a"),
        Monitor("x", "/opt/y.bin", 1), Monitor("x", "/opt/y.bin", 1),
        Monitor("f", "/opt/y.bin", 1, "x"), Monitor("n", "/opt/z.bin", 2),
        Monitor("n", "/opt/z.bin", 2, "n"), Monitor("g", "/opt/z.bin", 2, "n")}) {
    ASSERT_EQ(Add(manager, m).code, 0) << m.id;
  }
  const struct {
    const std::string& key;
    const char* id;
    bool found;
  } finds[] = {{sys, "a", true}, {sys, "d", true}, {demo, "c", true}, {y, "f", true},
               {z, "g", true},   {sys, "c", false}, {CreateKey("System", 0), "a", false}};
  for (const auto& f : finds) EXPECT_EQ(manager.FindWorker(f.key, f.id), f.found) << f.id;
  for (const char* id : {"f", "g"}) {
    std::vector<CWorker*> copies;
    manager.FindWokerByIDNolock(id, copies);
    EXPECT_EQ(copies.size(), 2u) << id;  // one under each worker with the parent's id
  }

  // Roots in list order, each followed by its descendants; a dependent worker executes from
  // its parent, on the window its own earlier samples filled.
  const ProcessInfo demoSample = Process("/opt/demo.bin", 4242);
  manager.Dispatch(SystemInfo());
  EXPECT_EQ(BusEnvironment::Take(), (Ids{"a", "b"}));
  manager.Dispatch(SystemInfo());
  EXPECT_EQ(BusEnvironment::Take(), (Ids{"a", "d", "b"}));
  manager.Dispatch(demoSample);
  manager.Dispatch(Process("/opt/demo.bin", 4243));
  manager.Dispatch(Process("/opt/other.bin", 4242));
  manager.Dispatch(std::vector<ProcessInfo>{demoSample, demoSample});
  EXPECT_EQ(BusEnvironment::Take(), (Ids{"c", "p"}));
  manager.Dispatch(Process("/opt/y.bin", 1));
  manager.Dispatch(Process("/opt/y.bin", 1));
  EXPECT_EQ(BusEnvironment::Take(), (Ids{"x", "x", "x", "f", "x", "f"}));

  EXPECT_EQ(manager.DeleteWorkerByID("missing").code, 0);
  EXPECT_EQ(manager.DeleteWorkerByID("d").code, 0);
  EXPECT_EQ(manager.DeleteWorkerByID("f").code, 0);
  EXPECT_FALSE(manager.FindWorker(sys, "d") || manager.FindWorker(y, "f"));
  EXPECT_TRUE(manager.FindWorker(sys, "a") && manager.FindWorker(y, "x"));
  EXPECT_EQ(manager.DeleteWorkerByKey(z).code, 0);  // "n" with all below it
  EXPECT_EQ(manager.DeleteWorkerByKey(sys).code, 0);
  EXPECT_FALSE(manager.FindWorker(sys, "a") || manager.FindWorker(sys, "b"));
  EXPECT_FALSE(manager.FindWorker(z, "n") || manager.FindWorker(z, "g"));
  manager.Dispatch(SystemInfo());
  manager.Dispatch(demoSample);
  EXPECT_EQ(BusEnvironment::Take(), (Ids{"c"}));

  manager.DestroyWorker();
  for (const auto& f : finds) EXPECT_FALSE(manager.FindWorker(f.key, f.id)) << f.id;
  manager.Dispatch(demoSample);
  manager.Dispatch(std::vector<ProcessInfo>{demoSample});
  EXPECT_EQ(BusEnvironment::Take(), Ids{});
}

// Random registration, unregistration and process exits, with and without dependants: every
// lookup answers what a walk over a plain list of the live workers answers, in the same order.
TEST(CWorkerManager, IndexAgreesWithAWalkThroughChurn) {
  CWorkerManager manager;
  struct Live {
    std::string id, key, parent;
  };
  std::vector<Live> model;  // roots in list order, each followed by its dependants
  unsigned seed = 7;
  const auto next = [&seed](unsigned n) {
    return (seed = seed * 1103515245u + 12345u) / 65536 % n;
  };
  const auto expected = [&model](auto match) {
    std::vector<std::string> ids;
    for (const Live& w : model) {
      if (match(w)) ids.push_back(w.id + "@" + w.key);
    }
    return ids;
  };
  // Removes the workers `match` takes; a root goes with everything under it.
  const auto drop = [&model](auto match) {
    std::vector<Live> kept;
    bool dropping = false;
    for (const Live& w : model) {
      if (w.parent.empty()) dropping = match(w);
      if (!dropping && !match(w)) kept.push_back(w);
    }
    model = kept;
  };
  const auto found = [](const std::vector<CWorker*>& workers) {
    std::vector<std::string> ids;
    for (const CWorker* w : workers) ids.push_back(w->GetWorkerID() + "@" + w->GetKey());
    return ids;
  };
  // Roots are "r" ids and dependants "d" ids, so a dependant never becomes a parent itself.
  for (int step = 0; step < 600; ++step) {
    std::string id = (next(3) == 0 ? "d" : "r") + std::to_string(next(8));
    const int pid = 100 + static_cast<int>(next(6));
    const std::string key = CreateKey("/opt/churn.bin", pid);
    switch (next(5)) {
      case 0:
      case 1:
        id[0] = 'r';
        ASSERT_EQ(Add(manager, Monitor(id, "/opt/churn.bin", pid)).code, 0);
        model.push_back({id, key, ""});
        break;
      case 2: {  // a dependant under every root of its parent's id
        id[0] = 'd';
        const std::string parent = "r" + std::to_string(next(8));
        bool any = false;
        for (size_t i = 0; i < model.size(); ++i) {
          if (model[i].id == parent && model[i].parent.empty()) {
            size_t end = i + 1;
            while (end < model.size() && !model[end].parent.empty()) ++end;
            model.insert(model.begin() + static_cast<long>(end), Live{id, key, parent});
            any = true;
          }
        }
        if (!any) break;
        ASSERT_EQ(Add(manager, Monitor(id, "/opt/churn.bin", pid, parent)).code, 0);
        break;
      }
      case 3:  // unregistration: roots and dependants of that id
        manager.DeleteWorkerByID(id);
        drop([&id](const Live& w) { return w.id == id; });
        break;
      default:  // a process exit
        manager.DeleteWorkerByKey(key);
        drop([&key](const Live& w) { return w.key == key; });
    }
    std::vector<CWorker*> byKey, byID;
    manager.FindWokerByKeyNolock(key, byKey);
    manager.FindWokerByIDNolock(id, byID);
    ASSERT_EQ(found(byKey), expected([&](const Live& w) { return w.key == key; })) << step;
    ASSERT_EQ(found(byID), expected([&](const Live& w) { return w.id == id; })) << step;
    ASSERT_EQ(manager.FindWorker(key, id),
              !expected([&](const Live& w) { return w.key == key && w.id == id; }).empty());
  }
  manager.DestroyWorker();
}

// A subscriber that takes connections and never answers: a listening socket nobody accepts on.
class SilentSubscriber {
 public:
  explicit SilentSubscriber(const std::string& topic) {
    const std::string dir = std::getenv("NUV_COMM_DIR");
    ::mkdir(dir.c_str(), 0700);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s/%s", dir.c_str(), topic.c_str());
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ok_ = fd_ >= 0 &&
          ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
          ::listen(fd_, 16) == 0;
    path_ = address.sun_path;
  }
  // Closing resets the connections waiting in the backlog: the stalled post ends.
  ~SilentSubscriber() {
    if (fd_ >= 0) ::close(fd_);
    ::unlink(path_.c_str());
  }
  bool ok() const { return ok_; }

 private:
  int fd_ = -1;
  bool ok_ = false;
  std::string path_;
};

TEST(CWorkerManager, ASilentSubscriberHoldsUpNoOtherMonitor) {
  nuv_comm_set_timeout_ms(60000);  // a post to the silent topic would block a minute
  CWorkerManager manager;
  auto silent = std::make_unique<SilentSubscriber>("workermanager:silent");
  ASSERT_TRUE(silent->ok());
  {
    CMonitorData mute = Monitor("mute", "system", 0);
    mute.handler = "workermanager:silent";
    ASSERT_EQ(Add(manager, mute).code, 0);
    ASSERT_EQ(Add(manager, Monitor("heard", "system", 0)).code, 0);
    auto sampling = std::async(std::launch::async, [&manager] {
      for (int i = 0; i < 5; ++i) manager.Dispatch(SystemInfo());
    });
    EXPECT_EQ(sampling.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    sampling.wait();
    EXPECT_EQ(BusEnvironment::Take(), Ids(5, "heard"));
  }
  const std::vector<std::string> lines = nuvtest::CaptureMessages([&silent] {
    silent.reset();
    CTopicPoster::GetInstance().Drain();
  });
  // The first record met the reset connection; the others, posted after it, found no server.
  EXPECT_EQ(filetest::Matching(lines, "[ERROR] [CWorker]::Execute post message failed, message = "
                                      "{\"name\": \"system\", \"id\": \"mute\"").size(), 5u);
  nuv_comm_set_timeout_ms(0);
  manager.DestroyWorker();
}

}  // namespace
