// Receives burying points on the bus topic "maintenance:POST", validates each posted document
// and appends it, byte for byte as posted, to the classified file store.
//
// A burying point is a JSON object whose "header" names the record type, the format version
// ("1.0"), the producing process ("header/focus", "PATH:ANYTHING") and descriptive strings;
// timing points (type 256) also carry integer "body/time_start", "body/time_end" and
// "body/time_diff". It is stored under the process name taken from the focus, pid 0, and its
// header type.
#ifndef NUV_BURYINGPOINT_BPMGR_H
#define NUV_BURYINGPOINT_BPMGR_H

#include <string>

#include "common/error.h"
#include "common/jsonscan.h"
#include "file/fileclassify.h"
#include "nuv_comm.h"

class CBpMgr {
 public:
  CBpMgr() = default;
  CBpMgr(const CBpMgr&) = delete;
  CBpMgr& operator=(const CBpMgr&) = delete;

  // Joins the bus and serves "maintenance:POST" with this object as the callback's user data.
  // 301 when the bus refuses; a failed register leaves the bus joined.
  CError Start();
  // Stops serving the topic and leaves the bus, whether or not Start succeeded.
  void Stop();

  // The bus callback: 0 when stored, 0x84CE0002 (null user data), 0x84CE0003 (no data),
  // 0x84CE0004 (invalid document) or the store's error code.
  static int BpRegisterCallBack(comm_data* request, comm_data* reply, void* userData);
  int CallBackImpl(void* data, unsigned int length);
  // The callback for requests read together, which the topic is served with: each result as
  // above, every valid document of the batch stored under one hold of the store.
  static void BpBatchCallBack(comm_data* const* requests, unsigned int count, int* results,
                              void* userData);
  void BatchImpl(comm_data* const* requests, unsigned int count, int* results);

  // Validation steps; each stops at the first failure and returns it. The document is scanned
  // in place (JsonScan), with the verdict and member values a Jansson tree would give.
  CError CheckBpData(void* data, unsigned int length, CFileClassify& classify);
  CError CheckBpHeader(const JsonScan& json, CFileClassify& classify);
  CError CheckBpTimer(const JsonScan& json);
  // The process name is the last component of the text before the last ":"; pid is always 0.
  CError GetBpFocus(const std::string& focus, std::string& name, unsigned int* pid);

 private:
  // CheckBpData with its failure logged: 0 or 0x84CE0004.
  int Checked(void* data, unsigned int length, CFileClassify& classify);
  // The result of a store write, logged.
  static int Stored(const CFileClassify& classify, const CError& written);
};

#endif
