// The rows of the group services error-log template table. Detail numbers
// step by 4 from 0x01, except that 0x4a follows 0x45; the labels and
// numbers are what error-log readers match on, so they never change.
#include "tk_gs_errtbl.h"

const fc_errtbl_entry fc_errtbl_tk_gs[kTkGsErrTblRows] = {
    {0, "GS_START_ST", 5, 0x01, "Group Services daemon started", 1, ""},
    {0, "GS_STOP_ST", 5, 0x05, "Group Services daemon stopped", 1, ""},
    {0, "GS_STARTERR_ER", 5, 0x09, "Internal logic error in Group Services daemon", 1, ""},
    {0, "GS_ASSERT_EM", 5, 0x0d, "Group Services daemon exits abnormally", 1, ""},
    {0, "GS_ERROR_ER", 5, 0x11, "Internal logic error in Group Services daemon", 1, ""},
    {0, "GS_MESSAGE_ST", 5, 0x15, "Group Services informational message", 1, ""},
    {0, "GS_DOM_NOT_FORM_WA", 5, 0x19, "Group Services domain has not been established.", 1, ""},
    {0, "GS_DOM_MERGE_ER", 5, 0x1d, "Group Services daemon exit to merge domains", 1, ""},
    {0, "GS_XSTALE_PRCLM_ER", 5, 0x21, "Group Services daemon exit to re-join the domain", 1, ""},
    {0, "GS_INVALID_MSG_ER", 5, 0x25, "Group Services daemon received an unknown message", 1, ""},
    {0, "GS_TS_RETCODE_ER", 5, 0x29,
     "Connection failure between Group Services and Topology Services", 1, ""},
    {0, "GS_CLNT_SOCK_ER", 5, 0x2d, "Connection failure on the Group Services client socket", 1,
     ""},
    {0, "GS_AUTH_DENIED_ST", 5, 0x31, "User is not allowed to use Group Services daemon", 1, ""},
    {0, "GS_DEACT_FAIL_ST", 5, 0x35,
     "Group Services daemon is unable to run the deactivate-script", 1, ""},
    {0, "GS_VASK_START_ST", 5, 0x39, "Group Services VASK daemon started", 1, ""},
    {0, "GS_VASK_STOP_ST", 5, 0x3d, "Group Services VASK daemon stopped", 1, ""},
    {0, "GS_VASK_ERROR_ER", 5, 0x41, "Group Services VASK daemon exits", 1, ""},
    {0, "GS_VASK_STARTERR_ER", 5, 0x45, "Internal logic error in Group Services daemon", 1, ""},
    {0, "GS_MASTER_NOT_RESPOND_WA", 5, 0x4a, "Master daemon(Zel.ConfigRM) is not responding", 1, ""},
    {0, "GS_MASTER_STOPPED_WA", 5, 0x4e, "Master daemon(Zel.ConfigRM) is stopped improperly", 1,
     ""},
    {0, "GS_KRUT_BLOCKED_ER", 5, 0x52, "Topology Services subsystem is unresponsive", 1, ""},
};
