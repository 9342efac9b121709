// Sample cells: one sample as a sliding window keeps it, whether the condition hit on it, and
// its JSON rendering for the subscriber.
#ifndef NUV_WORKER_CELL_H
#define NUV_WORKER_CELL_H

#include <jansson.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/reserved.h"
#include "worker/data.h"

class CExpress;

// A cell never changes after its ConstructCell. Owned by one window at a time, then by the
// worker that popped it; deleted through the base.
class CCell {
 public:
  CCell() = default;
  virtual ~CCell() = default;
  CCell(const CCell&) = delete;
  CCell& operator=(const CCell&) = delete;

  // Replaces `out` with the cell and its monitor as one JSON text ending in a line feed; `out`
  // is left as it was when rendering fails. The bare base renders "".
  virtual void GetString(const CMonitorData& monitor, std::string& out);
  virtual bool GetResult() const { return hit_; }
  // The target the cell stands for, as a monitor's image and pid name it.
  virtual std::string GetName() const { return std::string(); }
  virtual uint32_t GetPid() const { return 0; }

 protected:
  // Sets the expression, evaluates it into hit_ and logs the outcome.
  CError Evaluate(CExpress& express, const std::string& condition);
  // {"header": {...}, "body": body} serialised into `out`; takes the reference on `body`.
  static void Render(const CMonitorData& monitor, json_t* body, std::string& out);

  bool hit_ = false;
};

// The texts of a process sample. A host with a hundred monitors on one process makes a hundred
// cells of each of its samples; they share one copy of the texts.
struct ProcessText {
  std::string image;
  std::string path;
  std::string commandline;
};

// Each kind evaluates its condition with a parser of its own, or with one that `express` keeps
// across samples (the same kind and condition every time: its letters are defined once).
class CProcessCell : public CCell {
 public:
  CError ConstructCell(const ProcessInfo& info, const std::string& condition);
  CError ConstructCell(const ProcessInfo& info, const std::string& condition, CExpress& express);

  void GetString(const CMonitorData& monitor, std::string& out) override;
  std::string GetName() const override { return text_->image; }
  uint32_t GetPid() const override { return figures_.pid; }

 private:
  ProcessFigures figures_;
  std::shared_ptr<const ProcessText> text_;
};

class CSystemCell : public CCell {
 public:
  CError ConstructCell(const SystemInfo& info, const std::string& condition);
  CError ConstructCell(const SystemInfo& info, const std::string& condition, CExpress& express);

  void GetString(const CMonitorData& monitor, std::string& out) override;
  std::string GetName() const override { return kSystemImage; }
  uint32_t GetPid() const override { return 0; }

 private:
  SystemInfo info_;
};

// All processes of one notification. Only "A" is defined for its condition.
class CAllProcessCell : public CCell {
 public:
  CError ConstructCell(const std::vector<ProcessInfo>& infos, const std::string& condition);
  CError ConstructCell(const std::vector<ProcessInfo>& infos, const std::string& condition,
                       CExpress& express);

  void GetString(const CMonitorData& monitor, std::string& out) override;
  std::string GetName() const override { return kProcessPointImage; }
  uint32_t GetPid() const override { return kProcessPointPid; }

 private:
  std::vector<ProcessInfo> infos_;
};

#endif
