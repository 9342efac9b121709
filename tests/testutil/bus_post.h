// Burying points posted on the platform bus by a test, as other processes post them. Tests
// that include this link nuv_comm.
#ifndef NUV_TESTS_BUS_POST_H
#define NUV_TESTS_BUS_POST_H

#include <string>
#include <vector>

#include "nuv_comm.h"

namespace nuvtest {

// Posts `text` to `topic`; the result word.
inline int PostOnBus(const std::string& topic, const std::string& text) {
  comm_data* data = nuv_comm_new_data(text.data(), static_cast<unsigned int>(text.size()));
  const int result = nuv_comm_post(topic.c_str(), data);
  nuv_comm_delete_data(data);
  return result;
}

// Posts `texts` to `topic` with `window` requests in flight; each one's result word.
inline std::vector<int> PostManyOnBus(const std::string& topic,
                                      const std::vector<std::string>& texts, unsigned int window) {
  std::vector<comm_data*> data;
  for (const std::string& text : texts)
    data.push_back(nuv_comm_new_data(text.data(), static_cast<unsigned int>(text.size())));
  std::vector<int> results(texts.size(), 0x5A5A5A5A);
  nuv_comm_post_many(topic.c_str(), data.data(), static_cast<unsigned int>(data.size()), window,
                     results.data());
  for (comm_data* d : data) nuv_comm_delete_data(d);
  return results;
}

// A valid timing burying point (type 256) for `focus` ("PATH:PID"), its body carrying the
// JSON members `body` besides the timing ones.
inline std::string TimingPoint(const std::string& focus, const std::string& body) {
  return R"({"header":{"type":256,"version":"1.0","focus":")" + focus +
         R"(","id":"x1","name":"n","module":"m","function":"f","time":"t","product":"p",)"
         R"("product_version":"1","agent_id":"a-1"},"body":{"time_start":1,"time_end":3,)"
         R"("time_diff":2,)" + body + "}}";
}

}  // namespace nuvtest

#endif
