#include "worker/worker.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/jsonutil.h"
#include "common/utils.h"
#include "config/config_collect.h"
#include "file/file_test_support.h"
#include "handler/topicposter.h"
#include "nuv_time.h"
#include "worker/workermanager.h"

namespace {

const ::testing::Environment* const kBus =
    ::testing::AddGlobalTestEnvironment(new filetest::BusEnvironment(false));

void SetCollect(int frequency, int hitRate) {
  JsonUtil doc;
  ASSERT_EQ(doc.JsonLoadString("{\"default\": {\"collect_sdk\": {\"frequency\": " +
                               std::to_string(frequency) + ", \"monitor_type\": 31, " +
                               "\"hit_rate\": " + std::to_string(hitRate) + "}}}"),
            0);
  ASSERT_TRUE(CCollectSdkCfg::GetInstance()->Parse(doc));
}

// A topic served in this process, so posts are handled on the posting thread; `onPost` (when
// set) runs inside the handler after the message is recorded.
class Topic {
 public:
  explicit Topic(std::string name) : name(std::move(name)) {
    EXPECT_EQ(nuv_comm_register(this->name.c_str(), &Topic::Receive, this), 0);
  }
  ~Topic() { nuv_comm_unregister(name.c_str()); }
  std::vector<std::string> Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(messages_, {});
  }
  const std::string name;
  std::function<void()> onPost;

 private:
  static int Receive(comm_data* request, comm_data*, void* user) {
    auto* self = static_cast<Topic*>(user);
    void* bytes = nullptr;
    unsigned int length = 0;
    if (nuv_comm_get_data(request, &bytes, &length) != 0) return -1;
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->messages_.emplace_back(static_cast<const char*>(bytes), length);
    }
    if (self->onPost) self->onPost();
    return 0;
  }
  std::mutex mutex_;
  std::vector<std::string> messages_;
};

CMonitorData Monitor(const std::string& id, const std::string& image, int pid,
                     const std::string& condition, const std::string& handler,
                     const std::string& dependent = "") {
  CMonitorData m;
  m.id = id, m.agent_id = "Agent-1", m.name = "watch " + id, m.subscriber = "sub";
  m.version = "1.0", m.product = "Prod", m.product_version = "v2";
  m.focus = image + ":" + std::to_string(pid), m.handler = handler, m.condition = condition;
  m.dependent_id = dependent, m.image = image, m.pid = pid, m.pid_text = std::to_string(pid);
  return m;
}

// `tag` comes back in the body as "usertime" (process) or "procnum" (system).
ProcessInfo Process(float cpu, uint64_t tag) {
  ProcessInfo p;
  p.pid = 4242, p.cpu = cpu, p.usertime = tag, p.image = "demo.bin", p.path = "/opt/demo.bin";
  return p;
}
SystemInfo System(uint32_t tag, float cpu = 1.0f) {
  SystemInfo s;
  s.cpu = cpu, s.procnum = tag;
  return s;
}

struct Decref {
  void operator()(json_t* j) const { json_decref(j); }
};
using Json = std::unique_ptr<json_t, Decref>;
std::string Str(json_t* o, const char* key) {
  json_t* v = json_object_get(o, key);
  return json_is_string(v) ? json_string_value(v) : "<none>";
}
json_int_t Int(json_t* o, const char* key) {
  json_t* v = json_object_get(o, key);
  return json_is_integer(v) ? json_integer_value(v) : -1;
}

// Checks one posted record's envelope and header against the monitor that fired and the target
// its cell stands for; returns the cell's body, owned by `hold`.
json_t* CheckPost(const std::string& text, const CMonitorData& m, const std::string& name,
                  json_int_t pid, Json& hold) {
  Json top(json_loads(text.c_str(), 0, nullptr));
  EXPECT_EQ(json_object_size(top.get()), 5u) << text;
  EXPECT_EQ(Str(top.get(), "name") + " " + Str(top.get(), "id"), name + " " + m.id);
  EXPECT_EQ(Int(top.get(), "type") * 100000 + Int(top.get(), "pid"), 100 * 100000 + pid);
  const std::string context = Str(top.get(), "context");
  EXPECT_EQ(context.empty() ? 0 : context.back(), '\n');
  hold.reset(json_loads(context.c_str(), 0, nullptr));
  json_t* header = json_object_get(hold.get(), "header");
  EXPECT_EQ(Str(header, "id") + " " + Str(header, "condition") + " " + Str(header, "handler"),
            m.id + " " + m.condition + " " + m.handler);
  EXPECT_EQ(Str(header, "depend_id"), m.dependent_id.empty() ? "<none>" : m.dependent_id);
  return json_object_get(hold.get(), "body");
}

TEST(CWorker, HitThenRecoveryPostsOldestThenAllNewestFirst) {
  SetCollect(5, 50);
  Topic topic("worker:series");
  const CMonitorData monitor = Monitor("w1", "/opt/demo.bin", 4242, "C>50/20", topic.name);
  CWorker worker;
  ASSERT_EQ(worker.CreateWorker(monitor).code, 0);
  EXPECT_EQ(worker.GetKey(), CreateKey("/opt/demo.bin", 4242));
  // Four slots, every sample taken; two hitting cells (50 %) fire. posted: the samples
  // (1-based) whose cells are posted after this one, in order.
  const struct {
    float cpu;
    std::vector<int> posted;
  } steps[] = {{60, {}},    {10, {}},   {70, {}},   {20, {1}},  {30, {5, 4, 3, 2}},
               {80, {}},    {10, {}},   {10, {}},   {10, {}},   {10, {}},
               {90, {}},    {90, {9}},  {90, {10}}, {5, {11}},  {5, {12}},
               {5, {16, 15, 14, 13}},   {5, {}},    {5, {}},    {5, {}},   {5, {}}};
  for (size_t i = 0; i < std::size(steps); ++i) {
    ASSERT_EQ(worker.Do(Process(steps[i].cpu, i + 1)).code, 0);
    const std::vector<std::string> posts = topic.Take();
    ASSERT_EQ(posts.size(), steps[i].posted.size()) << "after sample " << i + 1;
    for (size_t j = 0; j < posts.size(); ++j) {
      const int n = steps[i].posted[j];
      Json hold;
      json_t* body = CheckPost(posts[j], monitor, "demo", 4242, hold);
      EXPECT_EQ(Int(body, "usertime"), n) << "after sample " << i + 1;
      json_t* cpu = json_object_get(body, "cpu");
      EXPECT_TRUE(json_is_real(cpu) && json_real_value(cpu) == steps[n - 1].cpu);
      json_t* hit = json_object_get(body, "hit");
      EXPECT_TRUE(json_is_boolean(hit) && json_is_true(hit) == (steps[n - 1].cpu > 50));
    }
  }
}

TEST(CWorker, SampleKindsFixedMonitorAndRefusals) {
  SetCollect(5, 100);
  Topic topic("worker:kinds");
  const std::vector<ProcessInfo> all = {Process(1, 1), Process(2, 2)};
  enum Kind { kProc, kSys, kAll };
  const struct {
    const char* id;
    Kind kind;
    const char* condition;
    std::vector<int> posted;  // the samples posted; empty when every sample is refused
  } rows[] = {
      {"proc", kProc, "A/5", {1, 2, 3, 4}},
      {"sys", kSys, "A/5", {1, 2, 3, 4}},
      {"all", kAll, "A/5", {1, 2, 3, 4}},
      {"sys2", kSys, "A/10", {1, 2, 3}},               // reports on every full-window sample
      {CWorker::kProcessPointID, kSys, "A/10", {1, 3}},  // fresh window after each report
      {"allc", kAll, "C>1/5", {}},                      // only "A" is defined for all processes
  };
  for (const auto& row : rows) {
    const char* image[] = {"/opt/demo.bin", "system", "processpoint"};
    const int pid[] = {4242, 0, 3};
    const char* name[] = {"demo", "system", "processpoint"};
    const CMonitorData m =
        Monitor(row.id, image[row.kind], pid[row.kind], row.condition, topic.name);
    CWorker worker;
    ASSERT_EQ(worker.CreateWorker(m).code, 0) << row.id;
    for (int n = 1; n <= 4; ++n) {
      const CError e = row.kind == kProc  ? worker.Do(Process(0, n))
                       : row.kind == kSys ? worker.Do(System(n))
                                          : worker.Do(all);
      EXPECT_EQ(e.code, row.posted.empty() ? 107 : 0) << row.id;
    }
    const std::vector<std::string> posts = topic.Take();
    ASSERT_EQ(posts.size(), row.posted.size()) << row.id;
    for (size_t i = 0; i < posts.size(); ++i) {
      Json hold;
      json_t* body = CheckPost(posts[i], m, name[row.kind], pid[row.kind], hold);
      if (row.kind == kAll) {
        EXPECT_TRUE(json_is_array(body) && json_array_size(body) == all.size());
      } else {
        EXPECT_EQ(Int(body, row.kind == kSys ? "procnum" : "usertime"), row.posted[i]);
        EXPECT_EQ(json_object_get(body, "hit") != nullptr, row.kind == kProc);
      }
    }
  }

  // Refused definitions leave a reset worker.
  for (const auto& [frequency, condition, reason] :
       {std::tuple{5, "C>80", "set condition failed, condition = C>80."},
         {0, "C>80/60", "collect frequency = 0, condition = C>80/60."}}) {
    SetCollect(frequency, 50);
    CWorker worker;
    CError error;
    const std::vector<std::string> lines = nuvtest::CaptureMessages(
        [&] { error = worker.CreateWorker(Monitor("x", "system", 0, condition, "t", "p")); });
    EXPECT_EQ(error.desc + " " + std::to_string(error.code),
              std::string("express failed, express = ") + condition + " 106");
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         std::string("[ERROR] [CWorker]::CreateWorker failed. ") + reason),
              1)
        << ::testing::PrintToString(lines);
    EXPECT_EQ(worker.GetKey() + worker.GetWorkerID() + worker.GetDependID(), "");
    EXPECT_EQ(worker.GetSlidingWindow().GetSlidingWindowState(), kWindowUnset);
  }

  // A post nobody takes is logged with the record and dropped; it is posted off the caller's
  // thread, since the topic is not served here.
  SetCollect(5, 50);
  CWorker worker;
  ASSERT_EQ(worker.CreateWorker(Monitor("lost", "system", 0, "A/5", "worker:nobody")).code, 0);
  const std::vector<std::string> lines = nuvtest::CaptureMessages([&] {
    EXPECT_EQ(worker.Do(System(1)).code, 0);
    CTopicPoster::GetInstance().Drain();
  });
  ASSERT_EQ(lines.size(), 2u) << ::testing::PrintToString(lines);  // the cell's DEBUG line first
  EXPECT_EQ(lines[1].rfind("[ERROR] [CWorker]::Execute post message failed, message = {", 0), 0u);
  EXPECT_NE(lines[1].find("\"id\": \"lost\""), std::string::npos) << lines[1];
}

TEST(CWorker, DependentRunsOnlyUnderItsParent) {
  SetCollect(5, 50);
  Topic topic("worker:depend");
  const CMonitorData parentDef = Monitor("p", "system", 0, "C>50/5", topic.name);
  const CMonitorData childDef = Monitor("c", "system", 0, "C>50/10", topic.name, "p");
  CWorker orphan;  // however full and hitting its window, it never executes alone
  ASSERT_EQ(orphan.CreateWorker(childDef).code, 0);
  for (int n = 0; n < 4; ++n) ASSERT_EQ(orphan.Do(System(n, 90)).code, 0);
  EXPECT_EQ(orphan.GetSlidingWindow().GetSlidingWindowState(), kWindowFull);
  EXPECT_TRUE(topic.Take().empty());

  CWorker parent, child;
  ASSERT_EQ(parent.CreateWorker(parentDef).code, 0);
  ASSERT_EQ(child.CreateWorker(childDef).code, 0);
  ASSERT_EQ(parent.InsertChildWorker(child).code, 0);
  std::vector<CWorker*> found;
  parent.FindWokerByID("c", found);
  ASSERT_EQ(found.size(), 1u);
  // Each sample reaches the parent (one slot), then the child (two), as a dispatch does.
  const struct {
    float cpu;
    std::vector<std::pair<const char*, int>> posted;  // worker id, sample number
  } steps[] = {
      {10, {}},                              // parent misses; child not run
      {60, {{"p", 2}}},                      // parent hits; child's window not yet full
      {11, {{"p", 3}, {"c", 1}}},            // parent's report of all, then the child hits
      {12, {}},                              // parent misses with no alarm
      {70, {{"p", 5}, {"c", 4}, {"c", 3}}},  // child misses after its hit: all, newest first
  };
  for (size_t i = 0; i < std::size(steps); ++i) {
    ASSERT_EQ(parent.Do(System(i + 1, steps[i].cpu)).code, 0);
    ASSERT_EQ(found[0]->Do(System(i + 1, steps[i].cpu)).code, 0);
    const std::vector<std::string> posts = topic.Take();
    ASSERT_EQ(posts.size(), steps[i].posted.size()) << "after sample " << i + 1;
    for (size_t j = 0; j < posts.size(); ++j) {
      const auto& [id, n] = steps[i].posted[j];
      Json hold;
      json_t* body = CheckPost(posts[j], id[0] == 'p' ? parentDef : childDef, "system", 0, hold);
      EXPECT_EQ(Int(body, "procnum"), n) << "after sample " << i + 1;
    }
  }
}

// Removal waits while a delivery runs on the worker or below it (a real delivery on root "r",
// a held reference on "c" under "g"), logging after every three refused tries.
TEST(CWorker, RemovalWaitsForDeliveryInProgress) {
  SetCollect(5, 50);
  nuv_time_set_tick_scale(1);  // the waits are timed below
  Topic gate("worker:gate");
  const std::string sys = CreateKey("system", 0), childKey = CreateKey("/opt/c.bin", 7);
  const struct {
    bool deliverRoot;  // else "c" is held by a reference
    std::function<void(CWorkerManager&)> remove;
    std::string line;  // after "[ERROR] "
    const char* left;  // the workers still present afterwards, of "r", "g" and its child "c"
  } rows[] = {
      {true, [](CWorkerManager& m) { m.DeleteWorkerByID("r"); },
       "[CWorkerManager]::DeleteWorkerByID failed. IsDelete ref, id = r.", "gc"},
      {false, [](CWorkerManager& m) { m.DeleteWorkerByID("c"); },
       "[CWorker]::DeleteWorkerByID failed. IsDelete ref, id = c.", "rg"},
      {true, [](CWorkerManager& m) { m.DestroyWorker(); },
       "[CWorkerManager]::DestroyWorker failed. IsDelete ref, id = r.", ""},
      {false, [](CWorkerManager& m) { m.DestroyWorker(); },
       "[CWorker]::DestroyWorker failed. IsDelete ref, id = c.", ""},
      {false, [](CWorkerManager& m) { m.DeleteWorkerByID("g"); },
       "[CWorkerManager]::DeleteWorkerByID failed. IsDelete ref, id = g.", "r"},
  };
  for (const auto& row : rows) {
    CWorkerManager manager;
    CWorker* root = nullptr;
    for (const CMonitorData& m : {Monitor("r", "system", 0, "A/5", gate.name),
                                  Monitor("g", "system", 0, "A/5", gate.name),
                                  Monitor("c", "/opt/c.bin", 7, "A/5", gate.name, "g")}) {
      auto* worker = new CWorker;
      root = root == nullptr ? worker : root;
      ASSERT_EQ(manager.CreateWorker(m, worker).code, 0);
      ASSERT_EQ(manager.InsertWorker(worker).code, 0);
    }
    std::vector<CWorker*> child;
    manager.FindWokerByIDNolock("c", child);
    ASSERT_EQ(child.size(), 1u);
    std::promise<void> entered, release;
    std::shared_future<void> released = release.get_future().share();
    gate.onPost = [&] { entered.set_value(), released.wait(); };
    std::thread delivery;
    long heldMs = 0;
    const std::vector<std::string> lines = nuvtest::CaptureMessages([&] {
      if (row.deliverRoot) {
        delivery = std::thread([root] { EXPECT_EQ(root->Do(System(1)).code, 0); });
        entered.get_future().wait();
      } else {
        child[0]->AddRef();
      }
      const auto start = std::chrono::steady_clock::now();
      std::future<void> removal = std::async(std::launch::async, [&] { row.remove(manager); });
      EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(120)), std::future_status::timeout);
      heldMs = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now() - start).count());
      row.deliverRoot ? release.set_value() : void(child[0]->SubRef());
      if (delivery.joinable()) delivery.join();
      removal.get();
    });
    gate.onPost = nullptr;
    gate.Take();
    const long tries = std::count(lines.begin(), lines.end(), "[ERROR] " + row.line);
    EXPECT_GE(tries, 1) << ::testing::PrintToString(lines);
    EXPECT_LE(tries, heldMs / 30 + 1) << heldMs;  // three tries 10 ms apart per message
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& l) { return l.find("IsDelete") != l.npos; }),
              tries);
    std::string left;
    for (const auto& [key, id] : {std::pair{sys, "r"}, {sys, "g"}, {childKey, "c"}}) {
      left += manager.FindWorker(key, id) ? id : "";
    }
    EXPECT_EQ(left, row.left) << row.line;
    manager.DestroyWorker();
  }
}

// Full children, then enough new ones to reallocate the children several times, and erasures
// in the middle: every surviving child keeps all its cells, each exactly once.
TEST(CWorker, ChildrenKeepTheirCellsThroughGrowthAndErasure) {
  SetCollect(5, 50);
  Topic topic("worker:growth");
  CWorker parent;
  ASSERT_EQ(parent.CreateWorker(Monitor("g", "system", 0, "A/5", topic.name)).code, 0);
  constexpr int kFull = 32, kCells = 4, kMore = 300;
  auto def = [&](int n) {
    return Monitor("c" + std::to_string(n), "system", 0, "A/20", topic.name, "g");
  };
  auto find = [&](int n) {
    std::vector<CWorker*> found;
    parent.FindWokerByID("c" + std::to_string(n), found);
    return found;
  };
  for (int n = 0; n < kFull + kMore; ++n) {
    CWorker child;
    ASSERT_EQ(child.CreateWorker(def(n)).code, 0);
    ASSERT_EQ(parent.InsertChildWorker(child).code, 0);
    for (int s = 1; n < kFull && s <= kCells; ++s) {
      ASSERT_EQ(find(n).at(0)->Do(System(n * 100 + s)).code, 0);
    }
  }
  const CWorker copy(*find(1).at(0));  // a copy is a new worker: configured, no cells
  EXPECT_EQ(copy.GetSlidingWindow().GetCellCount(), 0u);
  EXPECT_EQ(copy.GetSlidingWindow().GetSlidingWindowState(), kWindowFilling);
  for (int n = 0; n < kFull; n += 2) EXPECT_TRUE(parent.DeleteWorkerByID(def(n).id));
  std::vector<CWorker*> all;
  parent.FindWokerByKey(CreateKey("system", 0), all);
  EXPECT_EQ(all.size(), 1u + kFull / 2 + kMore);
  for (int n = 0; n < kFull; ++n) {
    const std::vector<CWorker*> found = find(n);
    ASSERT_EQ(found.size(), n % 2 == 0 ? 0u : 1u) << n;
    EXPECT_TRUE(found.empty() || found[0]->GetSlidingWindow().GetCellCount() == kCells) << n;
  }
  // The parent's report runs every child: each full one posts its oldest cell.
  ASSERT_EQ(parent.Do(System(0)).code, 0);
  const std::vector<std::string> posts = topic.Take();
  ASSERT_EQ(posts.size(), 1u + kFull / 2);
  for (size_t i = 1; i < posts.size(); ++i) {
    const int n = static_cast<int>(2 * i - 1);
    Json hold;
    EXPECT_EQ(Int(CheckPost(posts[i], def(n), "system", 0, hold), "procnum"), n * 100 + 1);
  }
  parent.DestroyWorker();
  EXPECT_FALSE(parent.HasChildrens());
}

}  // namespace
