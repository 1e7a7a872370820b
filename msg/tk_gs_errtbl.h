// The error-log template table of the group services product, shared by its
// daemons: one row per kind of entry. A trace line's label number is the
// row index. Read-only, so safe from any thread.
#ifndef VELT_MSG_TK_GS_ERRTBL_H_
#define VELT_MSG_TK_GS_ERRTBL_H_

#include "vx_ffdc.h"

constexpr int kTkGsErrTblRows = 21;

extern const fc_errtbl_entry fc_errtbl_tk_gs[kTkGsErrTblRows];

#endif  // VELT_MSG_TK_GS_ERRTBL_H_
