// Requests sent ahead on one connection: nuv_comm_post_many against a real second process,
// and a hand-written client that sends ahead on the wire.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "comm_testkit.h"
#include "nuv_comm.h"

namespace {

using namespace commtest;

// Messages owned for nuv_comm_post_many, and the results it gives them.
class Batch {
 public:
  explicit Batch(const std::vector<std::string>& texts) : texts(texts) {
    for (const std::string& t : texts)
      data_.push_back(nuv_comm_new_data(t.data(), static_cast<unsigned int>(t.size())));
    results.assign(texts.size(), 0x5A5A5A5A);  // no result here is a word anyone answers
  }
  ~Batch() {
    for (comm_data* d : data_) nuv_comm_delete_data(d);
  }
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  int Post(const std::string& topic, unsigned int window) {
    return nuv_comm_post_many(topic.c_str(), data_.data(), static_cast<unsigned int>(size()),
                              window, results.data());
  }
  size_t size() const { return data_.size(); }
  // The indices whose result is not the served hash of their text.
  std::vector<size_t> WrongHashes() const {
    std::vector<size_t> wrong;
    for (size_t i = 0; i < size(); ++i)
      if (results[i] != int(Fnv1a(texts[i]))) wrong.push_back(i);
    return wrong;
  }

  const std::vector<std::string> texts;
  std::vector<int> results;

 private:
  std::vector<comm_data*> data_;
};

std::vector<std::string> Numbered(const std::string& prefix, int n) {
  std::vector<std::string> out;
  for (int i = 0; i < n; ++i) out.push_back(prefix + "-" + std::to_string(i));
  return out;
}

TEST(CommPipeline, EveryRequestGetsItsOwnResultInOrder) {
  Bus bus;
  Peer server({"serve", "pipe"});
  ASSERT_TRUE(server.Said("ready"));
  std::vector<std::string> texts = Numbered("m", 1000);
  texts[500] = "ret:0x84CE0004";  // refused in the middle of the window
  texts[501] = "ret:0";
  texts[777] = "";
  texts[800] = std::string(300000, 'w');  // more than the socket buffers hold
  Batch batch(texts);
  EXPECT_EQ(batch.Post("pipe", 64), 0);  // every result is the handler's
  EXPECT_EQ(batch.results[500], int(0x84CE0004u));
  EXPECT_EQ(batch.results[501], 0);
  EXPECT_EQ(batch.WrongHashes(), (std::vector<size_t>{500, 501}));

  // The pooled connection stays in step for whatever follows on it.
  EXPECT_EQ(Post("pipe", "after"), int(Fnv1a("after")));
  Batch one_at_a_time(Numbered("w1", 5));
  EXPECT_EQ(one_at_a_time.Post("pipe", 1), 0);
  EXPECT_TRUE(one_at_a_time.WrongHashes().empty());
  EXPECT_EQ(server.FinishServing(), 1006);  // one handler call per request
}

TEST(CommPipeline, AFrameTheServerRefusesKeepsItsWordAndNothingAfterItIsCalledDone) {
  Bus bus;
  Peer server({"serve", "small"}, {"NUV_COMM_MAX_MSG=1024"});
  ASSERT_TRUE(server.Said("ready"));
  std::vector<std::string> texts(100, "ret:0");
  texts[40] = std::string(2000, 'x');  // fits our limit, not the server's
  Batch batch(texts);
  EXPECT_EQ(batch.Post("small", 64), NUV_COMM_E_TOOBIG);
  for (size_t i = 0; i < batch.size(); ++i) {
    const int expected = i < 40 ? 0 : i == 40 ? NUV_COMM_E_TOOBIG : NUV_COMM_E_CONN;
    EXPECT_EQ(batch.results[i], expected) << i;
  }
  EXPECT_EQ(Post("small", "next"), int(Fnv1a("next")));  // on a new connection
  EXPECT_EQ(server.FinishServing(), 41);
}

TEST(CommPipeline, AServerThatDiesOrStallsMidWindowLeavesErrorsNeverAFakeZero) {
  Bus bus;
  Peer server({"serve", "doomed"});
  ASSERT_TRUE(server.Said("ready"));
  std::vector<std::string> texts(300, "ret:0");  // the right answer is 0, so a fake 0 shows
  texts[20] = "block";
  Batch batch(texts);
  int rc = 0;
  std::thread poster([&] { rc = batch.Post("doomed", 64); });
  ASSERT_TRUE(server.Said("busy"));
  server.Signal(SIGKILL);
  server.Reap();
  poster.join();
  EXPECT_EQ(rc, NUV_COMM_E_CONN);
  // Those before the blocked one may have been answered; none after it were.
  for (size_t i = 0; i < batch.size(); ++i) {
    if (i < 20 && batch.results[i] == 0) continue;
    EXPECT_EQ(batch.results[i], NUV_COMM_E_CONN) << i;
  }

  Peer stalled({"serve", "stalled"});
  ASSERT_TRUE(stalled.Said("ready"));
  EXPECT_EQ(Post("stalled", "warm"), int(Fnv1a("warm")));  // leaves a pooled connection
  ASSERT_TRUE(stalled.Stop());
  nuv_comm_set_timeout_ms(200);
  Batch late(std::vector<std::string>(300, "ret:0"));
  EXPECT_EQ(late.Post("stalled", 64), NUV_COMM_E_TIMEOUT);
  EXPECT_EQ(late.results, std::vector<int>(300, NUV_COMM_E_TIMEOUT));
  nuv_comm_set_timeout_ms(0);
  stalled.Signal(SIGCONT);
  // The late answers stay on the dropped connection instead of answering this.
  EXPECT_EQ(Post("stalled", "c"), int(Fnv1a("c")));
}

TEST(CommPipeline, PipelinedAndSynchronousPostersOnOneTopicLoseNothing) {
  Bus bus;
  Peer server({"serve", "mixed"});
  ASSERT_TRUE(server.Said("ready"));
  std::vector<std::unique_ptr<Peer>> procs;
  procs.emplace_back(new Peer({"post", "mixed", "2000", "pa", "64"}));
  procs.emplace_back(new Peer({"post", "mixed", "2000", "pb", "7"}));
  procs.emplace_back(new Peer({"post", "mixed", "500", "sa"}));
  procs.emplace_back(new Peer({"post", "mixed", "500", "sb"}));
  std::atomic<int> wrong{0};
  std::thread batches([&] {  // pipelined batches and single posts from one thread
    for (int round = 0; round < 20; ++round) {
      Batch batch(Numbered("tb" + std::to_string(round), 50));
      if (batch.Post("mixed", 16) != 0 || !batch.WrongHashes().empty()) ++wrong;
      if (Post("mixed", "ts" + std::to_string(round)) != int(Fnv1a("ts" + std::to_string(round))))
        ++wrong;
    }
  });
  std::thread singles([&] {
    for (int i = 0; i < 500; ++i) {
      const std::string msg = "tt-" + std::to_string(i);
      if (Post("mixed", msg) != int(Fnv1a(msg))) ++wrong;
    }
  });
  batches.join();
  singles.join();
  for (auto& p : procs) EXPECT_EQ(p->Reap(), 0);
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(server.FinishServing(), 2000 + 2000 + 500 + 500 + 20 * 51 + 500);
}

// Records the order of its calls.
struct Ordered {
  std::mutex mu;
  std::vector<std::string> seen;
  std::thread::id thread;
  static int Handle(comm_data* request, comm_data*, void* user) {
    auto* self = static_cast<Ordered*>(user);
    void* p = nullptr;
    unsigned int n = 0;
    nuv_comm_get_data(request, &p, &n);
    std::lock_guard<std::mutex> lock(self->mu);
    self->seen.emplace_back(static_cast<char*>(p), n);
    self->thread = std::this_thread::get_id();
    return static_cast<int>(Fnv1a(self->seen.back()));
  }
};

TEST(CommPipeline, ALocalTopicIsCalledInOrderAndBadArgumentsPostNothing) {
  {
    Batch early({"x"});
    EXPECT_EQ(early.Post("here", 4), NUV_COMM_E_NOINIT);
    EXPECT_EQ(early.results, std::vector<int>{NUV_COMM_E_NOINIT});
  }
  Bus bus;
  Ordered handler;
  ASSERT_EQ(nuv_comm_register("here", Ordered::Handle, &handler), 0);
  Batch batch({"one", "two", "three"});
  EXPECT_EQ(batch.Post("here", 2), 0);
  EXPECT_TRUE(batch.WrongHashes().empty());
  EXPECT_EQ(handler.seen, (std::vector<std::string>{"one", "two", "three"}));
  EXPECT_EQ(handler.thread, std::this_thread::get_id());

  Batch bad_topic({"x", "y"});
  EXPECT_EQ(bad_topic.Post("a/b", 4), NUV_COMM_E_INVAL);
  EXPECT_EQ(bad_topic.results, std::vector<int>(2, NUV_COMM_E_INVAL));
  comm_data* d = nuv_comm_new_data("z", 1);
  comm_data* with_null[] = {d, nullptr};
  int results[2] = {1, 1};
  EXPECT_EQ(nuv_comm_post_many("here", with_null, 2, 4, results), NUV_COMM_E_INVAL);
  EXPECT_EQ(results[0], NUV_COMM_E_INVAL);
  EXPECT_EQ(nuv_comm_post_many("here", with_null, 1, 4, nullptr), NUV_COMM_E_INVAL);
  EXPECT_EQ(nuv_comm_post_many("here", nullptr, 0, 4, nullptr), 0);
  nuv_comm_delete_data(d);
  EXPECT_EQ(handler.seen.size(), 3u);  // none of those reached it

  Batch nobody({"x", "y"});
  EXPECT_EQ(nobody.Post("nobody", 4), NUV_COMM_E_NOTOPIC);
  EXPECT_EQ(nobody.results, std::vector<int>(2, NUV_COMM_E_NOTOPIC));
}

// The server batches for any client that sends ahead, not only for ours.
TEST(CommPipeline, ARawClientSendingAheadIsAnsweredInOrder) {
  Bus bus;
  Recorder rec;
  ASSERT_EQ(nuv_comm_register("raw", Recorder::Handle, &rec), 0);
  int fd = RawConnect(bus.Path("raw"));
  ASSERT_GE(fd, 0);
  std::string frames, replies;
  for (const std::string& msg : Numbered("r", 64)) {
    frames += Le32(uint32_t(msg.size())) + msg;
    replies += Reply(Fnv1a(msg));
  }
  ASSERT_TRUE(SendRaw(fd, frames));
  EXPECT_EQ(RecvRaw(fd, replies.size()), replies);
  // A burst that ends inside a frame: the whole one is answered, the other waits for its rest.
  const std::string whole = Le32(5) + "whole", split = Le32(6) + "split!";
  ASSERT_TRUE(SendRaw(fd, whole + split.substr(0, 5)));
  EXPECT_EQ(RecvRaw(fd, 8), Reply(Fnv1a("whole")));
  ASSERT_TRUE(SendRaw(fd, split.substr(5)));
  EXPECT_EQ(RecvRaw(fd, 8), Reply(Fnv1a("split!")));
  close(fd);
  EXPECT_EQ(rec.calls.load(), 64 + 2);
}

// Records the size of every call and answers each request with the hash of its text, or -2
// when its bytes are not followed by the NUL the contract promises.
struct BatchRecorder {
  std::mutex mu;
  std::vector<unsigned int> calls;
  static void Handle(comm_data* const* requests, unsigned int count, int* results, void* user) {
    auto* self = static_cast<BatchRecorder*>(user);
    for (unsigned int i = 0; i < count; ++i) {
      void* p = nullptr;
      unsigned int n = 0;
      if (nuv_comm_get_data(requests[i], &p, &n) != 0) {
        results[i] = -1;
        continue;
      }
      const char* text = static_cast<const char*>(p);
      results[i] = text[n] != '\0' ? -2 : static_cast<int>(Fnv1a(std::string(text, n)));
    }
    std::lock_guard<std::mutex> lock(self->mu);
    self->calls.push_back(count);
  }
};

// The frames one read takes reach a batch handler in one call, each with its own result; a
// post from this process hands it one request.
TEST(CommPipeline, ABatchHandlerTakesTheFramesReadTogetherInOneCall) {
  Bus bus;
  BatchRecorder rec;
  EXPECT_EQ(nuv_comm_register_batch("batch", nullptr, nullptr), NUV_COMM_E_INVAL);
  ASSERT_EQ(nuv_comm_register_batch("batch", BatchRecorder::Handle, &rec), 0);
  int fd = RawConnect(bus.Path("batch"));
  ASSERT_GE(fd, 0);
  std::string frames, replies;
  for (const std::string& msg : Numbered("b", 40)) {
    frames += Le32(uint32_t(msg.size())) + msg;
    replies += Reply(Fnv1a(msg));
  }
  ASSERT_TRUE(SendRaw(fd, frames));  // one send of a few hundred bytes: one read takes it all
  EXPECT_EQ(RecvRaw(fd, replies.size()), replies);
  close(fd);
  EXPECT_EQ(Post("batch", "alone"), int(Fnv1a("alone")));
  std::lock_guard<std::mutex> lock(rec.mu);
  EXPECT_EQ(rec.calls, (std::vector<unsigned int>{40, 1}));
}

}  // namespace
