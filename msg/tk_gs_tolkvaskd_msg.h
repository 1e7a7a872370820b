// Accessors of the daemon's message catalogue: set 4 ("tolkvaskd") of the
// catalogue file "tk_gs.cat", messages 1 to 34, the texts of the status
// report. Every message has a built-in default, used when the catalogue or
// the message is missing and whenever the "C" or "POSIX" locale is selected.
// The texts take positional printf arguments ("%1$s").
//
// Catalogue indexes: -1 is the built-in defaults; 0 is the catalogue of the
// process's LC_MESSAGES locale (opened once, kept for the life of the
// process); 1 to kTkGsTolkvaskdMaxLocales are catalogues of named locales,
// opened by getmsg_tk_gs_tolkvaskd_nls the first time a locale is asked for
// and kept. An index with no open catalogue gives the defaults.
// Thread-safe.
#ifndef VELT_MSG_TK_GS_TOLKVASKD_MSG_H_
#define VELT_MSG_TK_GS_TOLKVASKD_MSG_H_

constexpr int kTkGsTolkvaskdMsgSet = 4;        // set number in "tk_gs.cat"
constexpr int kTkGsTolkvaskdMsgCount = 34;     // messages 1..34
constexpr int kTkGsTolkvaskdMaxLocales = 16;   // named-locale catalogues kept

// Text of message number from the catalogue at catidx. A number outside
// 1..34 gives "getmsg_tk_gs_tolkvaskd: Bad msg index(N) for msg cat tk_gs set
// tolkvaskd." in a buffer of the calling thread (valid until its next bad
// index). Other texts live as long as the process.
const char* getmsg_tk_gs_tolkvaskd_catidx(int number, int catidx);

// Catalogue index of a locale name: -1 for "C" and "POSIX", 0 for anything
// else (null and "" included).
int find_catidx_tk_gs_tolkvaskd(const char* locale);

// Selects the locale whose catalogue index getmsg_tk_gs_tolkvaskd uses (the
// index is find_catidx_tk_gs_tolkvaskd's). Returns the locale name selected
// before; names are kept in storage that lives as long as the process, so
// the result can be passed back later to restore it. Names are kept up to 63
// bytes; once 32 different names have been seen, further new names are
// recorded as "(other)", which selects the same index as they would.
const char* setmsg_locale_tk_gs_tolkvaskd(const char* locale);

// The locale name last selected ("" before any selection: the process's
// locale).
const char* getcurrentlocale_tk_gs_tolkvaskd(void);

// Text of message number in the selected locale.
const char* getmsg_tk_gs_tolkvaskd(int number);

// Text of message number in locale, for this call only: the defaults for "C"
// and "POSIX", the process's catalogue for null or "", else the catalogue of
// that locale found through NLSPATH (as catopen would for that LC_MESSAGES).
// A locale name that is not a plain name (at most 63 bytes of letters,
// digits and "_.@-+=,", not starting with '.'), a locale without a
// catalogue, and locales beyond the first kTkGsTolkvaskdMaxLocales with a
// catalogue give the defaults.
const char* getmsg_tk_gs_tolkvaskd_nls(int number, const char* locale);

// The built-in default text of message number.
const char* getmsg_tk_gs_tolkvaskd_def(int number);

#endif  // VELT_MSG_TK_GS_TOLKVASKD_MSG_H_
