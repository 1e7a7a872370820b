// The tolkvaskd set of the "tk_gs.cat" message catalogue.
#include "tk_gs_tolkvaskd_msg.h"

#include <limits.h>
#include <stdint.h>
#include <nl_types.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>

namespace {

constexpr char kCatalogueName[] = "tk_gs.cat";

// Built-in texts, by message number - 1. They are the canonical form of the
// status report and are written here exactly as operators and scripts see
// them ("re-bebuilding" included).
const char* const kDefaultTexts[kTkGsTolkvaskdMsgCount] = {
    /* 1 */ "Status information for subsystem %1$s:\n",
    /* 2 */ "Tessel switch device is not currently supported.\n",
    /* 3 */ "Not yet connected to Group Services after %1$d connect try\n",
    /* 4 */ "Not yet connected to Group Services after %1$d connect tries\n",
    /* 5 */ "Connected to Group Services.\n",
    /* 6 */ "Subscribed: %1$s.  Joined: %2$s  (%3$d aliases)\n",
    /* 7 */ "Yes",
    /* 8 */ "No",
    /* 9 */ "Switch device %1$s not currently open on this node.\n",
    /* 10 */ "Switch device %1$s opened with file descriptor %2$d.\n",
    /* 11 */ "Switch device opened %1$d time(s), closed %2$d time(s)\n",
    /* 12 */ "%1$s: TRACE BEGIN request from SRC, trace was: %2$X will set to: %3$X.\n",
    /* 13 */ "%1$s: TRACE END request from SRC, trace was: %2$X setting to: %3$X.\n",
    /* 14 */ "%1$s: REFRESH request from SRC\n",
    /* 15 */ "%1$s: Invalid request %2$d.\n",
    /* 16 */ " %1$s group name is %2$s.\n",
    /* 17 */ " %1$s group is joined, and aliased to %2$s.\n",
    /* 18 */ " %1$s group is not joined.\n",
    /* 19 */ " The size of %1$s group is %2$d.\n",
    /* 20 */ "-",
    /* 21 */ " Adapter  Group    \t\t Mbrs \tJoined \tSubs'd \tAliases\n",
    /* 22 */ " %1$-7s  %2$-15s \t%3$-5s \t%4$-6s \t%5$-6s\t%6$-6s\n",
    /* 23 */ "(not found)",
    /* 24 */ "(up)",
    /* 25 */ "(down)",
    /* 26 */ "Aggregate Adapter Configuration\n",
    /* 27 */ " New config is re-bebuilding by PID %1$d.\n",
    /* 28 */ " The current configuration id is %1$s.\n",
    /* 29 */ "Waiting for Group Services response.\n",
    /* 30 */ "Current Members\n",
    /* 31 */ ("Group            Number of.\n"
              "Name             Nodes GMbrs LMbrs  Joined Subs'd  Aliases\n"),
    /* 32 */ "%1$-17s%2$-6s%3$-7s%4$-7s%5$-7s%6$-6s%7$-14s\n",
    /* 33 */ "Current Global Membership Node List\n",
    /* 34 */ "Current Local Membership Adapter List\n",
};

constexpr size_t kMaxLocaleName = 63;
constexpr int kMaxKeptNames = 32;
constexpr char kOtherLocaleName[] = "(other)";

// Where catopen looks when NLSPATH does not say, in the same order.
constexpr char kDefaultNlsPath[] =
    "/usr/share/locale/%L/%N:/usr/share/locale/%L/LC_MESSAGES/%N:"
    "/usr/share/locale/%l/%N:/usr/share/locale/%l/LC_MESSAGES/%N";

const nl_catd kNoCatalogue = reinterpret_cast<nl_catd>(static_cast<intptr_t>(-1));

// Catalogues and locale names of the process. Thread-safe through mu (the
// current index is atomic so that lookups need no lock). Descriptors and kept
// names are never closed or freed, so a pointer or descriptor read under mu
// stays good after mu is released.
struct CatalogueState {
  std::mutex mu;
  nl_catd localeCatalogues[kTkGsTolkvaskdMaxLocales];   // GUARDED_BY(mu)
  char localeNames[kTkGsTolkvaskdMaxLocales][kMaxLocaleName + 1];  // GUARDED_BY(mu)
  int localeCount = 0;                                  // GUARDED_BY(mu)
  char keptNames[kMaxKeptNames][kMaxLocaleName + 1];    // GUARDED_BY(mu)
  int keptCount = 0;                                    // GUARDED_BY(mu)
  const char* currentName = "";                         // GUARDED_BY(mu)
  std::atomic<int> currentIndex{0};
};

CatalogueState& state() {
  static CatalogueState* s = new CatalogueState;  // lives through exit handlers
  return *s;
}

nl_catd processCatalogue() {
  static const nl_catd catd = catopen(kCatalogueName, NL_CAT_LOCALE);
  return catd;
}

const char* badIndexText(int number) {
  thread_local char text[128];
  snprintf(text, sizeof(text),
           "getmsg_tk_gs_tolkvaskd: Bad msg index(%d) for msg cat tk_gs set tolkvaskd.", number);
  return text;
}

// A locale name that is safe to put into a file name.
bool isPlainLocaleName(const char* locale) {
  size_t len = strnlen(locale, kMaxLocaleName + 1);
  if (len == 0 || len > kMaxLocaleName || locale[0] == '.') return false;
  for (size_t i = 0; i < len; ++i) {
    char c = locale[i];
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              strchr("_.@-+=,", c) != nullptr;
    if (!ok) return false;
  }
  return true;
}

// Expands one NLSPATH element for locale the way catopen does: %N the
// catalogue, %L the locale, %l its language, %t its territory, %c its
// codeset, %% a percent sign.
std::string expandNlsElement(const std::string& element, const std::string& locale) {
  size_t underscore = locale.find('_');
  size_t dot = locale.find('.');
  size_t at = locale.find('@');
  size_t langEnd = std::min(underscore, std::min(dot, at));
  std::string language = locale.substr(0, langEnd);
  std::string territory;
  if (underscore != std::string::npos) {
    size_t end = std::min(dot, at);
    if (end > underscore) territory = locale.substr(underscore + 1, end == std::string::npos ? std::string::npos : end - underscore - 1);
  }
  std::string codeset;
  if (dot != std::string::npos) {
    codeset = locale.substr(dot + 1, at == std::string::npos || at < dot ? std::string::npos : at - dot - 1);
  }
  std::string out;
  for (size_t i = 0; i < element.size(); ++i) {
    if (element[i] != '%' || i + 1 == element.size()) {
      out += element[i];
      continue;
    }
    char code = element[++i];
    switch (code) {
      case 'N': out += kCatalogueName; break;
      case 'L': out += locale; break;
      case 'l': out += language; break;
      case 't': out += territory; break;
      case 'c': out += codeset; break;
      case '%': out += '%'; break;
      default:
        out += '%';
        out += code;
    }
  }
  return out;
}

// Opens the catalogue of locale through NLSPATH and the default places.
nl_catd openLocaleCatalogue(const char* locale) {
  std::string paths;
  const char* nlspath = secure_getenv("NLSPATH");
  if (nlspath != nullptr && nlspath[0] != '\0' && strnlen(nlspath, 8192) < 8192) {
    paths = std::string(nlspath) + ":";
  }
  paths += kDefaultNlsPath;
  size_t start = 0;
  while (start <= paths.size()) {
    size_t end = paths.find(':', start);
    if (end == std::string::npos) end = paths.size();
    std::string element = paths.substr(start, end - start);
    start = end + 1;
    if (element.empty()) continue;
    std::string path = expandNlsElement(element, locale);
    if (path.size() >= PATH_MAX) continue;
    // A name with a slash is opened as it stands, never searched again.
    if (path.find('/') == std::string::npos) path = "./" + path;
    nl_catd catd = catopen(path.c_str(), 0);
    if (catd != kNoCatalogue) return catd;
  }
  return kNoCatalogue;
}

// The catalogue index of a named locale, opening its catalogue the first
// time. Returns -1 when it has none or the table is full: only catalogues
// that exist take a place, so names that lead nowhere cannot fill it.
int localeIndex(const char* locale) {
  if (!isPlainLocaleName(locale)) return -1;
  CatalogueState& st = state();
  std::lock_guard<std::mutex> lock(st.mu);
  for (int i = 0; i < st.localeCount; ++i) {
    if (strcmp(st.localeNames[i], locale) == 0) return i + 1;
  }
  if (st.localeCount == kTkGsTolkvaskdMaxLocales) return -1;
  nl_catd catd = openLocaleCatalogue(locale);
  if (catd == kNoCatalogue) return -1;
  snprintf(st.localeNames[st.localeCount], sizeof(st.localeNames[0]), "%s", locale);
  st.localeCatalogues[st.localeCount] = catd;
  return ++st.localeCount;
}

// A copy of name in storage that lives as long as the process.
// Requires: state().mu held.
const char* keepNameLocked(CatalogueState& st, const char* name) {
  char cut[kMaxLocaleName + 1];
  snprintf(cut, sizeof(cut), "%s", name);
  if (strcmp(cut, "") == 0) return "";
  if (strcmp(cut, "C") == 0) return "C";
  if (strcmp(cut, "POSIX") == 0) return "POSIX";
  for (int i = 0; i < st.keptCount; ++i) {
    if (strcmp(st.keptNames[i], cut) == 0) return st.keptNames[i];
  }
  if (st.keptCount == kMaxKeptNames) return kOtherLocaleName;
  memcpy(st.keptNames[st.keptCount], cut, sizeof(cut));
  return st.keptNames[st.keptCount++];
}

}  // namespace

const char* getmsg_tk_gs_tolkvaskd_catidx(int number, int catidx) {
  if (number < 1 || number > kTkGsTolkvaskdMsgCount) return badIndexText(number);
  const char* text = kDefaultTexts[number - 1];
  nl_catd catd = kNoCatalogue;
  if (catidx == 0) {
    catd = processCatalogue();
  } else if (catidx >= 1 && catidx <= kTkGsTolkvaskdMaxLocales) {
    CatalogueState& st = state();
    std::lock_guard<std::mutex> lock(st.mu);
    if (catidx <= st.localeCount) catd = st.localeCatalogues[catidx - 1];
  }
  if (catd == kNoCatalogue) return text;
  // catgets gives the default back when the message is missing.
  return catgets(catd, kTkGsTolkvaskdMsgSet, number, text);
}

int find_catidx_tk_gs_tolkvaskd(const char* locale) {
  if (locale != nullptr && (strcmp(locale, "C") == 0 || strcmp(locale, "POSIX") == 0)) return -1;
  return 0;
}

const char* setmsg_locale_tk_gs_tolkvaskd(const char* locale) {
  if (locale == nullptr) locale = "";
  CatalogueState& st = state();
  std::lock_guard<std::mutex> lock(st.mu);
  const char* previous = st.currentName;
  st.currentName = keepNameLocked(st, locale);
  st.currentIndex.store(find_catidx_tk_gs_tolkvaskd(locale), std::memory_order_relaxed);
  return previous;
}

const char* getcurrentlocale_tk_gs_tolkvaskd(void) {
  CatalogueState& st = state();
  std::lock_guard<std::mutex> lock(st.mu);
  return st.currentName;
}

const char* getmsg_tk_gs_tolkvaskd(int number) {
  return getmsg_tk_gs_tolkvaskd_catidx(number, state().currentIndex.load(std::memory_order_relaxed));
}

const char* getmsg_tk_gs_tolkvaskd_nls(int number, const char* locale) {
  int catidx = find_catidx_tk_gs_tolkvaskd(locale);
  if (catidx == 0 && locale != nullptr && locale[0] != '\0') catidx = localeIndex(locale);
  return getmsg_tk_gs_tolkvaskd_catidx(number, catidx);
}

const char* getmsg_tk_gs_tolkvaskd_def(int number) {
  return getmsg_tk_gs_tolkvaskd_catidx(number, -1);
}
