// The aggregate-IP configuration: which node has which adapters in which
// aggregate device (ml0, ...), as read from the aggregate configuration
// file, together with the configuration's identity. AMAggCfg is one device,
// AMAggCfgList the whole file with its reader; the propagator keeps the
// current and the proposed list and the aggregators read their device's
// masks from it.
#ifndef VELT_GLOBALAM_AMAGGREGATE_H_
#define VELT_GLOBALAM_AMAGGREGATE_H_

#include <string>
#include <vector>

#include "AMUtils.h"
#include "common.h"

class AMSRCDriver;

// True for blank, tab, newline and carriage return.
bool is_white_char(int c);
// Turns every white character of s into a blank, in place, and returns the
// first other character (0 for a blank line).
char cleanup_and_return_first_char(char* s);
// Removes trailing and leading white characters in place; returns the
// start of the trimmed text.
char* trimstr(char* s);

// Distinct interface names configuration files have brought so far.
int fileInterfaceNamesForTesting();

// One aggregate device: per adapter index a mask of the nodes that have
// that adapter in the device, and the adapter indexes installed on this
// node. Thread-compatible: its owner (the propagator thread, or an
// aggregator with its own copy) serialises access.
class AMAggCfg {
 public:
  // A mask holds one bit per node number the adapter table knows.
  static constexpr int kNodeBits = MaxNodesInDomain;
  // Adapter indexes at or above this have no row in the adapter table, so
  // no mask is made for them; this also bounds what a file can make us
  // allocate.
  static constexpr int kMaxMaskIndex = MaxAdaptersOnNode;

  AMAggCfg();
  explicit AMAggCfg(const char* name);
  ~AMAggCfg();
  AMAggCfg(const AMAggCfg&) = delete;
  AMAggCfg& operator=(const AMAggCfg&) = delete;

  const char* aggName() const { return _aggDevName.c_str(); }
  void setAggName(const char* name) { _aggDevName = name; }
  GSBitSet& devEnabled() { return _devEnabled; }
  int numSlotMasks() const { return _numSlotMasks; }

  // Makes sure slot i exists: a full array is replaced by one of i + 4
  // slots, the old masks copied and the new ones empty.
  void prepare(int i);
  // The mask of adapter index i, made on demand; null for a negative index
  // or one at or above kMaxMaskIndex.
  GSBitSet* getMask(int i);
  // The same by interface name; null also for a name longer than an
  // interface name can be, or a new name once files have brought 1024
  // distinct ones (each takes a slot of the process-wide name index).
  GSBitSet* getMask(const char* ifname);
  bool AreAllZero() const;
  bool AdapterConfiguredOnNetwork(int i) const;
  void eraseall();
  void CopyFrom(const AMAggCfg& other);
  // Compares enabled sets and every mask; missing slots read as empty (the
  // shorter side gets them made).
  bool AreTheySame(AMAggCfg& other);
  // One line per non-empty mask whose adapter index exists on this node.
  void informToSRC(AMSRCDriver* drv);

 private:
  GSString _aggDevName;
  int _numSlotMasks;
  GSBitSet* _devMasks;  // owned, _numSlotMasks entries
  GSBitSet _devEnabled;
};

// One problem the reader met, by line number; kept so that the refresh
// command can show the operator every faulty line.
struct AMAggCfgLineError {
  int line;
  std::string what;
};

// The whole file: its identity and its devices. Thread-compatible: only the
// propagator thread touches its lists (the refresh command has its own).
class AMAggCfgList {
 public:
  // No file may make us hold more devices than this; a data line naming a
  // further device is an error line.
  static constexpr int kMaxAggDevices = 64;
  // Problems kept for lineErrors(); later ones are only counted.
  static constexpr int kMaxKeptLineErrors = 1000;
  // Length of the line buffer: longer lines are read as several.
  static constexpr int kLineBufferLength = 1000;

  AMAggCfgList();
  ~AMAggCfgList();
  AMAggCfgList(const AMAggCfgList&) = delete;
  AMAggCfgList& operator=(const AMAggCfgList&) = delete;

  AMAggCfg* find_cfg(const char* name, int create);
  void eraseall();
  // Returns the number of entries copied.
  int CopyCfgListFrom(AMAggCfgList& src);
  bool CopyTo(AMAggCfg& cfg, const char* name);
  // Same masks per device; a device on one side only must be all zero.
  // The identities are not compared.
  bool AreTheySame(AMAggCfgList& other);
  // The number of successful data lines, or -1 (list unchanged) when the
  // file cannot be opened or is not a regular file (a FIFO or a device
  // would hold the reader up for ever); openError() then says why.
  int ReadConfig(const char* path);
  const std::string& openError() const { return openError_; }
  void informToSRC(AMSRCDriver* drv);

  // Problems of the last ReadConfig, in line order.
  const std::vector<AMAggCfgLineError>& lineErrors() const { return lineErrors_; }
  int lineErrorCount() const { return lineErrorCount_; }

  AMCfgInfo cfgID;
  int num_slot_cfgs;
  int num_cfgs;
  AMAggCfg** cfg_list;  // owned array of owned entries

 private:
  void readDirective(int lineno, const char* line, char* text);
  int readDataLine(int lineno, char* line, const char* original);
  void noteLineError(int lineno, const std::string& what);

  GSBitSet installed_;  // adapter indexes of "+Installed:" lines
  std::vector<AMAggCfgLineError> lineErrors_;
  int lineErrorCount_ = 0;
  std::string openError_;  // empty when the last ReadConfig opened its file
};

#endif  // VELT_GLOBALAM_AMAGGREGATE_H_
