#include "AMAggregate.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <unordered_set>

#include "AMController.h"
#include "AMNetIf.h"
#include "AMSRCDriver.h"
#include "TraceStream.h"
#include "ha_assert.h"
#include "sw_adapter_info.h"
#include "vx_cu.h"

namespace {

// Interface names are at most this long (the kernel's IFNAMSIZ - 1);
// longer tokens can be no adapter, and refusing them keeps a hostile file
// from filling the process-wide name index.
constexpr size_t kMaxInterfaceNameLength = 15;

// The adapter index of an interface name named in a configuration file.
// Each new name takes a slot of the process-wide name index for good, so a
// file may bring at most kMaxFileInterfaceNames distinct names over the
// life of the process; -1 for a further one (and for an overlong name).
constexpr size_t kMaxFileInterfaceNames = 1024;
std::mutex fileNamesMu;
std::unordered_set<std::string> fileNames;  // GUARDED_BY(fileNamesMu)

int indexOfFileInterfaceName(const char* name) {
  if (name == nullptr || *name == '\0' || strlen(name) > kMaxInterfaceNameLength) return -1;
  {
    std::lock_guard<std::mutex> hold(fileNamesMu);
    if (fileNames.count(name) == 0) {
      if (fileNames.size() >= kMaxFileInterfaceNames) return -1;
      fileNames.insert(name);
    }
  }
  return _idxFromInterfaceName(name);
}

// Reads a whole token as a decimal node number; false for anything else.
bool parseNodeNumber(const char* token, long* out) {
  if (token == nullptr || *token == '\0') return false;
  errno = 0;
  char* end = nullptr;
  long value = strtol(token, &end, 10);
  if (errno != 0 || end == token || *end != '\0') return false;
  *out = value;
  return true;
}

// Appends the set bits of mask as "a,b,c-f" to text.
std::string nodeListText(const GSBitSet& mask) {
  std::string text;
  long n = mask.nextSet(0);
  while (n >= 0) {
    long last = n;
    while (mask.test(static_cast<size_t>(last + 1))) ++last;
    if (!text.empty()) text += ",";
    text += std::to_string(n);
    if (last > n) text += "-" + std::to_string(last);
    n = mask.nextSet(static_cast<size_t>(last + 1));
  }
  return text;
}

}  // namespace

int fileInterfaceNamesForTesting() {
  std::lock_guard<std::mutex> hold(fileNamesMu);
  return static_cast<int>(fileNames.size());
}

bool is_white_char(int c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

char cleanup_and_return_first_char(char* s) {
  char first = 0;
  if (s == nullptr) return 0;
  for (char* p = s; *p != '\0'; ++p) {
    if (is_white_char(static_cast<unsigned char>(*p))) {
      *p = ' ';
    } else if (first == 0) {
      first = *p;
    }
  }
  return first;
}

char* trimstr(char* s) {
  if (s == nullptr) return s;
  size_t len = strlen(s);
  while (len > 0 && is_white_char(static_cast<unsigned char>(s[len - 1]))) s[--len] = '\0';
  char* start = s;
  while (*start != '\0' && is_white_char(static_cast<unsigned char>(*start))) ++start;
  return start;
}

// ---------------------------------------------------------------------------
// AMAggCfg

AMAggCfg::AMAggCfg() : _numSlotMasks(0), _devMasks(nullptr), _devEnabled(MaxAdaptersOnNode) {}

AMAggCfg::AMAggCfg(const char* name) : AMAggCfg() { _aggDevName = name; }

AMAggCfg::~AMAggCfg() { delete[] _devMasks; }

void AMAggCfg::prepare(int i) {
  if (i < _numSlotMasks) return;
  int slots = i + 4;
  GSBitSet* fresh = new GSBitSet[slots];
  for (int k = 0; k < slots; ++k) {
    if (k < _numSlotMasks) {
      fresh[k] = _devMasks[k];
    } else {
      fresh[k].resize(kNodeBits);
    }
  }
  delete[] _devMasks;
  _devMasks = fresh;
  _numSlotMasks = slots;
}

GSBitSet* AMAggCfg::getMask(int i) {
  if (i < 0 || i >= kMaxMaskIndex) return nullptr;
  prepare(i);
  return &_devMasks[i];
}

GSBitSet* AMAggCfg::getMask(const char* ifname) { return getMask(indexOfFileInterfaceName(ifname)); }

bool AMAggCfg::AreAllZero() const {
  for (int i = 0; i < _numSlotMasks; ++i)
    if (_devMasks[i].count() != 0) return false;
  return true;
}

bool AMAggCfg::AdapterConfiguredOnNetwork(int i) const {
  return i >= 0 && i < _numSlotMasks && _devMasks[i].count() != 0;
}

void AMAggCfg::eraseall() {
  delete[] _devMasks;
  _devMasks = nullptr;
  _aggDevName = "";
  _numSlotMasks = 0;
}

void AMAggCfg::CopyFrom(const AMAggCfg& other) {
  if (&other == this) return;
  eraseall();
  _aggDevName = other._aggDevName.c_str();
  _devEnabled = other._devEnabled;
  if (other._numSlotMasks > 0) {
    _devMasks = new GSBitSet[other._numSlotMasks];
    for (int i = 0; i < other._numSlotMasks; ++i) _devMasks[i] = other._devMasks[i];
    _numSlotMasks = other._numSlotMasks;
  }
}

bool AMAggCfg::AreTheySame(AMAggCfg& other) {
  AMAggCfg* left = this;
  AMAggCfg* right = &other;
  if (right->_numSlotMasks > left->_numSlotMasks) std::swap(left, right);
  size_t bound = std::max(left->_devEnabled.size(), right->_devEnabled.size());
  for (size_t b = 0; b < bound; ++b)
    if (left->_devEnabled.test(b) != right->_devEnabled.test(b)) return false;
  for (int i = 0; i < left->_numSlotMasks; ++i) {
    GSBitSet* theirs = right->getMask(i);
    const GSBitSet& mine = left->_devMasks[i];
    if (theirs == nullptr) {
      if (mine.count() != 0) return false;
      continue;
    }
    size_t bits = std::max(mine.size(), theirs->size());
    for (size_t b = 0; b < bits; ++b)
      if (mine.test(b) != theirs->test(b)) return false;
  }
  return true;
}

void AMAggCfg::informToSRC(AMSRCDriver* drv) {
  AMGlobalAdapterTable* table = AMController::pGAdapterCfgTbl;
  if (drv == nullptr || table == nullptr) return;
  for (int i = 0; i < _numSlotMasks; ++i) {
    if (_devMasks[i].count() == 0) continue;
    std::string adapterName;
    {
      GSReadGuard hold(*table);
      AMAdapterItem* row = table->locateAdapterItem(static_cast<int>(myNodeNumber), i);
      if (row == nullptr) continue;
      adapterName.assign(row->interfacename, strnlen(row->interfacename, sizeof row->interfacename));
    }
    drv->inform_printf(" %s[%s] Nodes: ", aggName(), adapterName.c_str());
    drv->inform_printf("%s\n", nodeListText(_devMasks[i]).c_str());
  }
}

// ---------------------------------------------------------------------------
// AMAggCfgList

AMAggCfgList::AMAggCfgList() : num_slot_cfgs(0), num_cfgs(0), cfg_list(nullptr), installed_(MaxAdaptersOnNode) {}

AMAggCfgList::~AMAggCfgList() { eraseall(); }

AMAggCfg* AMAggCfgList::find_cfg(const char* name, int create) {
  if (name == nullptr) return nullptr;
  for (int i = 0; i < num_cfgs; ++i) {
    if (cfg_list[i] != nullptr && strcmp(cfg_list[i]->aggName(), name) == 0) {
      if (TRACEABLE(TRACE_DEBUG3)) AMtracef(TRACE_DEBUG3, "AggCfgList::find_cfg %s..found at %d\n", name, i);
      return cfg_list[i];
    }
  }
  if (!create) {
    if (TRACEABLE(TRACE_DEBUG3)) AMtracef(TRACE_DEBUG3, "AggCfgList::find_cfg %s not found\n", name);
    return nullptr;
  }
  if (num_cfgs == num_slot_cfgs) {
    int slots = num_slot_cfgs + 4;
    AMAggCfg** fresh = new AMAggCfg*[slots]();
    for (int i = 0; i < num_cfgs; ++i) fresh[i] = cfg_list[i];
    delete[] cfg_list;
    cfg_list = fresh;
    num_slot_cfgs = slots;
  }
  int at = num_cfgs++;
  cfg_list[at] = new AMAggCfg(name);
  if (TRACEABLE(TRACE_DEBUG3)) AMtracef(TRACE_DEBUG3, "AggCfgList::find_cfg %s not found but added at %d\n", name, at);
  return cfg_list[at];
}

void AMAggCfgList::eraseall() {
  for (int i = 0; i < num_cfgs; ++i) delete cfg_list[i];
  delete[] cfg_list;
  cfg_list = nullptr;
  num_cfgs = 0;
  num_slot_cfgs = 0;
  cfgID.erase();
}

int AMAggCfgList::CopyCfgListFrom(AMAggCfgList& src) {
  AMtracef(AM_TRACEF_DEBUG, "Start AMAggCfgList::CopyCfgListFrom()\n");
  if (&src == this) return num_cfgs;
  eraseall();
  cfgID.copyFrom(src.cfgID);
  for (int i = 0; i < src.num_cfgs; ++i) {
    AMAggCfg* from = src.cfg_list[i];
    if (from == nullptr) continue;
    AMAggCfg* to = find_cfg(from->aggName(), 1);
    to->CopyFrom(*from);
  }
  if (TRACEABLE(TRACE_DEBUG)) {
    AMtracef(AM_TRACEF_DEBUG, "CfgList::Copy ID=%s to %s\n", src.cfgID.getCfgIdStr().c_str(),
             cfgID.getCfgIdStr().c_str());
  }
  AMtracef(AM_TRACEF_DEBUG, "Done  AMAggCfgList::CopyCfgListFrom()\n");
  return num_cfgs;
}

bool AMAggCfgList::CopyTo(AMAggCfg& cfg, const char* name) {
  AMAggCfg* found = find_cfg(name, 0);
  if (found == nullptr) return false;
  cfg.CopyFrom(*found);
  return true;
}

bool AMAggCfgList::AreTheySame(AMAggCfgList& other) {
  for (int i = 0; i < num_cfgs; ++i) {
    AMAggCfg* mine = cfg_list[i];
    if (mine == nullptr) continue;
    AMAggCfg* theirs = other.find_cfg(mine->aggName(), 0);
    if (theirs == nullptr) {
      if (!mine->AreAllZero()) return false;
    } else if (!mine->AreTheySame(*theirs)) {
      return false;
    }
  }
  for (int i = 0; i < other.num_cfgs; ++i) {
    AMAggCfg* theirs = other.cfg_list[i];
    if (theirs == nullptr) continue;
    if (find_cfg(theirs->aggName(), 0) == nullptr && !theirs->AreAllZero()) return false;
  }
  return true;
}

void AMAggCfgList::informToSRC(AMSRCDriver* drv) {
  for (int i = 0; i < num_cfgs; ++i)
    if (cfg_list[i] != nullptr) cfg_list[i]->informToSRC(drv);
}

void AMAggCfgList::noteLineError(int lineno, const std::string& what) {
  ++lineErrorCount_;
  if (static_cast<int>(lineErrors_.size()) < kMaxKeptLineErrors) lineErrors_.push_back({lineno, what});
}

void AMAggCfgList::readDirective(int lineno, const char* line, char* text) {
  // text points at the "+"; the value is what follows the first colon.
  char* colon = strchr(text, ':');
  char* value = nullptr;
  if (colon != nullptr) {
    value = trimstr(colon + 1);
    if (*value == '\0') value = nullptr;
  }
  auto keyword = [text](const char* word) { return strncasecmp(text, word, strlen(word)) == 0; };
  if (keyword("+Installed:")) {
    int index = indexOfFileInterfaceName(value);
    if (index < 0) {
      noteLineError(lineno, std::string("Installed device not usable: ") + line);
      return;
    }
    installed_.set(static_cast<size_t>(index));
    AM_TRACE(TRACE_FYI) << "+Device " << value << "(index=" << index << ") is enabled" << endl;
  } else if (keyword("+SwitchPlanes:")) {
    AM_TRACE(TRACE_FYI) << "+Number of SW planes is " << (value ? value : "unknown") << endl;
  } else if (keyword("+echo:")) {
    if (value != nullptr) AM_TRACE(TRACE_FYI) << "+MSG: " << value << endl;
  } else if (keyword("+CFGID:")) {
    if (value != nullptr) {
      cfgID.setCfgIdStr(value);
      AM_TRACE(TRACE_FYI) << "+CFGID: " << value << ", Interpreted=" << cfgID << endl;
    }
  } else {
    AM_TRACE(TRACE_FYI) << "Unknown line " << lineno << ": " << line << ". Ignored" << endl;
    noteLineError(lineno, std::string("Unknown line ") + std::to_string(lineno) + ": " + line + ". Ignored");
  }
}

int AMAggCfgList::readDataLine(int lineno, char* line, const char* original) {
  // Tokens 4 and later belong to the list of token 3, so that a list
  // written with blanks after its commas still reads as one list.
  char* save = nullptr;
  char* nodeToken = strtok_r(line, " \t\n", &save);
  char* device = strtok_r(nullptr, " \t\n", &save);
  char* first = strtok_r(nullptr, " \t\n", &save);
  if (nodeToken == nullptr || device == nullptr || first == nullptr) {
    AM_TRACE(TRACE_FYI) << "Ignored line " << lineno << ": " << original << endl;
    noteLineError(lineno, std::string("Ignored line ") + std::to_string(lineno) + ": " + original);
    return 0;
  }
  std::string list = first;
  for (char* more = strtok_r(nullptr, " \t\n", &save); more != nullptr; more = strtok_r(nullptr, " \t\n", &save))
    list += more;

  long node = -1;
  bool numeric = parseNodeNumber(nodeToken, &node);
  if (TRACEABLE(TRACE_DEBUG3))
    AMtracef(TRACE_DEBUG3, "Node=%d MLDev=%s AggList=%s\n", numeric ? static_cast<int>(node) : -1, device,
             list.c_str());
  // A node number the adapter table cannot hold is as wrong as a negative
  // one; so is a device beyond the number of devices we keep.
  bool tooManyDevices = num_cfgs >= kMaxAggDevices && find_cfg(device, 0) == nullptr;
  if (!numeric || node < 0 || node >= AMAggCfg::kNodeBits || *device == '\0' || tooManyDevices) {
    AM_TRACE(TRACE_FYI) << "Error on line " << lineno << ": " << original << endl;
    noteLineError(lineno, std::string("Error on line ") + std::to_string(lineno) + ": " + original);
    return 0;
  }
  AMAggCfg* cfg = find_cfg(device, 1);
  if (cfg == nullptr) HA_ASSERT_FAIL("Should not happen...Error in find_cfg()");

  int bitsSet = 0;
  size_t start = 0;
  while (start <= list.size()) {
    size_t comma = list.find(',', start);
    if (comma == std::string::npos) comma = list.size();
    std::string name = list.substr(start, comma - start);
    start = comma + 1;
    if (name.empty()) continue;
    GSBitSet* mask = cfg->getMask(name.c_str());
    if (mask != nullptr) {
      mask->set(static_cast<size_t>(node));
      ++bitsSet;
      if (TRACEABLE(TRACE_DEBUG3)) AMtracef(TRACE_DEBUG3, "Set Node=%d for %s\n", static_cast<int>(node), name.c_str());
    } else {
      AM_TRACE(TRACE_FYI) << "Mask for device " << name << " not found and ignored" << endl;
      noteLineError(lineno, "Mask for device " + name + " not found and ignored");
    }
  }
  return bitsSet > 0 ? 1 : 0;
}

namespace {

// What kind of file st is, for the message that refuses it.
const char* fileKind(const struct stat& st) {
  if (S_ISFIFO(st.st_mode)) return "a FIFO";
  if (S_ISCHR(st.st_mode)) return "a character device";
  if (S_ISBLK(st.st_mode)) return "a block device";
  if (S_ISDIR(st.st_mode)) return "a directory";
  if (S_ISSOCK(st.st_mode)) return "a socket";
  return "another kind of file";
}

std::string errorText(int err) {
  char text[128];
  return cu_strerror(err, text, sizeof text);
}

// Opens path for reading when it is a regular file (a symbolic link to one
// is fine). The open does not block, so that a FIFO put in its place is
// refused instead of waiting for a writer. Null, with *why set, otherwise.
FILE* openRegularFile(const char* path, std::string* why) {
  why->clear();
  if (path == nullptr) {
    *why = "no file named";
    return nullptr;
  }
  int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    *why = errorText(errno);
    return nullptr;
  }
  struct stat st;
  if (fstat(fd, &st) != 0) {
    *why = errorText(errno);
    close(fd);
    return nullptr;
  }
  if (!S_ISREG(st.st_mode)) {
    *why = std::string("is ") + fileKind(st) + ", not a regular file";
    close(fd);
    return nullptr;
  }
  int flags = fcntl(fd, F_GETFL);
  if (flags != -1) fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  FILE* file = fdopen(fd, "r");
  if (file == nullptr) {
    *why = errorText(errno);
    close(fd);
  }
  return file;
}

}  // namespace

int AMAggCfgList::ReadConfig(const char* path) {
  TraceBlock tb(TraceLevel(TRACE_BLOCK), "AMAggCfgList::ReadConfig()");
  const char* name = path ? path : "(null)";
  AM_TRACE(TRACE_FYI) << "Reading agg_cfg from file " << name << endl;
  FILE* file = openRegularFile(path, &openError_);
  if (file == nullptr) {
    AM_TRACE(TRACE_FYI) << "Error on opening agg_cfg file " << name << endl;
    AM_TRACE(TRACE_FYI) << "agg_cfg file " << name << ": " << openError_.c_str() << endl;
    return -1;
  }
  eraseall();
  installed_.clearAll();
  lineErrors_.clear();
  lineErrorCount_ = 0;
  int lineno = 0;
  int successful = 0;

  char buffer[kLineBufferLength];
  while (fgets(buffer, sizeof buffer, file) != nullptr) {
    ++lineno;
    // Zero bytes inside the line end its text here, as for any C string.
    std::string original(buffer);
    while (!original.empty() && (original.back() == '\n' || original.back() == '\r')) original.pop_back();
    if (TRACEABLE(TRACE_DEBUG)) AM_TRACE(TRACE_DEBUG) << "Line " << lineno << ": " << original << endl;
    char first = cleanup_and_return_first_char(buffer);
    if (first == 0 || first == '#' || first == '*') continue;
    if (first == '+') {
      char* text = trimstr(buffer);
      readDirective(lineno, original.c_str(), text);
      continue;
    }
    successful += readDataLine(lineno, buffer, original.c_str());
  }
  fclose(file);

  for (int i = 0; i < num_cfgs; ++i)
    if (cfg_list[i] != nullptr) cfg_list[i]->devEnabled() = installed_;
  AM_TRACE(TRACE_FYI) << "Finished reading agg_cfg file " << name << ". Successful Lines=" << successful << endl;
  return successful;
}
