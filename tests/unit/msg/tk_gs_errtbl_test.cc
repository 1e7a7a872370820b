#include "tk_gs_errtbl.h"

#include <string.h>

#include <set>
#include <string>

#include <gtest/gtest.h>

namespace {

void expectRow(int index, const char* label, unsigned detail, const char* description) {
  const fc_errtbl_entry& row = fc_errtbl_tk_gs[index];
  EXPECT_EQ(0ul, row.word0) << index;
  EXPECT_STREQ(label, row.label) << index;
  EXPECT_EQ(5, row.class_code) << index;
  EXPECT_EQ(detail, row.detail) << index;
  EXPECT_STREQ(description, row.description) << index;
  EXPECT_EQ(1, row.count) << index;
  EXPECT_STREQ("", row.extra) << index;
}

TEST(ErrorTemplateTable, HasTwentyOneRows) {
  EXPECT_EQ(21, kTkGsErrTblRows);
  EXPECT_EQ(21u, sizeof(fc_errtbl_tk_gs) / sizeof(fc_errtbl_tk_gs[0]));
}

TEST(ErrorTemplateTable, RowsTheDaemonLogsWithAreExact) {
  expectRow(0, "GS_START_ST", 0x01, "Group Services daemon started");
  expectRow(3, "GS_ASSERT_EM", 0x0d, "Group Services daemon exits abnormally");
  expectRow(4, "GS_ERROR_ER", 0x11, "Internal logic error in Group Services daemon");
  expectRow(5, "GS_MESSAGE_ST", 0x15, "Group Services informational message");
  expectRow(14, "GS_VASK_START_ST", 0x39, "Group Services VASK daemon started");
  expectRow(15, "GS_VASK_STOP_ST", 0x3d, "Group Services VASK daemon stopped");
  expectRow(16, "GS_VASK_ERROR_ER", 0x41, "Group Services VASK daemon exits");
  expectRow(17, "GS_VASK_STARTERR_ER", 0x45, "Internal logic error in Group Services daemon");
  expectRow(18, "GS_MASTER_NOT_RESPOND_WA", 0x4a, "Master daemon(Zel.ConfigRM) is not responding");
  expectRow(20, "GS_KRUT_BLOCKED_ER", 0x52, "Topology Services subsystem is unresponsive");
}

TEST(ErrorTemplateTable, DetailNumbersStepByFourWithTheOneJump) {
  for (int i = 0; i < kTkGsErrTblRows; ++i) {
    unsigned expected = i <= 17 ? 1u + 4u * static_cast<unsigned>(i) : 0x4au + 4u * static_cast<unsigned>(i - 18);
    EXPECT_EQ(expected, fc_errtbl_tk_gs[i].detail) << "row " << i;
  }
}

TEST(ErrorTemplateTable, EveryRowIsCompleteAndLabelsAreUnique) {
  std::set<std::string> labels;
  for (int i = 0; i < kTkGsErrTblRows; ++i) {
    const fc_errtbl_entry& row = fc_errtbl_tk_gs[i];
    ASSERT_NE(nullptr, row.label) << i;
    ASSERT_NE(nullptr, row.description) << i;
    ASSERT_NE(nullptr, row.extra) << i;
    EXPECT_EQ(0u, strncmp(row.label, "GS_", 3)) << row.label;
    EXPECT_EQ(5, row.class_code) << i;
    EXPECT_EQ(1, row.count) << i;
    labels.insert(row.label);
  }
  EXPECT_EQ(21u, labels.size());
}

TEST(ErrorTemplateTable, RemainingRowsAreExact) {
  expectRow(1, "GS_STOP_ST", 0x05, "Group Services daemon stopped");
  expectRow(2, "GS_STARTERR_ER", 0x09, "Internal logic error in Group Services daemon");
  expectRow(6, "GS_DOM_NOT_FORM_WA", 0x19, "Group Services domain has not been established.");
  expectRow(7, "GS_DOM_MERGE_ER", 0x1d, "Group Services daemon exit to merge domains");
  expectRow(8, "GS_XSTALE_PRCLM_ER", 0x21, "Group Services daemon exit to re-join the domain");
  expectRow(9, "GS_INVALID_MSG_ER", 0x25, "Group Services daemon received an unknown message");
  expectRow(10, "GS_TS_RETCODE_ER", 0x29, "Connection failure between Group Services and Topology Services");
  expectRow(11, "GS_CLNT_SOCK_ER", 0x2d, "Connection failure on the Group Services client socket");
  expectRow(12, "GS_AUTH_DENIED_ST", 0x31, "User is not allowed to use Group Services daemon");
  expectRow(13, "GS_DEACT_FAIL_ST", 0x35, "Group Services daemon is unable to run the deactivate-script");
  expectRow(19, "GS_MASTER_STOPPED_WA", 0x4e, "Master daemon(Zel.ConfigRM) is stopped improperly");
}

}  // namespace
