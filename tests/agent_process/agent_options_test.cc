#include "agent_options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velt {
namespace agent {
namespace {

// Runs the parser over a command line given as words.
ParseOutcome parse(std::vector<std::string> words, AgentOptions* options, std::string* error) {
  words.insert(words.begin(), "veltd");
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  return parseAgentOptions(static_cast<int>(words.size()), argv.data(), options, error);
}

TEST(AgentOptionsParsing, TakesEveryOption) {
  AgentOptions o;
  std::string error;
  ASSERT_EQ(parse({"--standalone", "--socket", "/tmp/x/agent.sock", "--state-dir", "/tmp/x/state",
                   "--log", "/tmp/x/log", "--allow-uid", "1000", "--allow-uid", "root",
                   "--allow-gid", "100", "--claim-version", "2.4.0.0", "--node", "7"},
                  &o, &error),
            ParseOutcome::kRun)
      << error;
  EXPECT_TRUE(o.standalone);
  EXPECT_EQ(o.socketPath, "/tmp/x/agent.sock");
  EXPECT_EQ(o.stateDir, "/tmp/x/state");
  EXPECT_EQ(o.logPath, "/tmp/x/log");
  EXPECT_EQ(o.allowUids, (std::vector<uid_t>{1000, 0}));
  EXPECT_EQ(o.allowGids, (std::vector<gid_t>{100}));
  EXPECT_EQ(o.agentVersion, 0x02040000u);
  EXPECT_EQ(o.node, 7u);
}

TEST(AgentOptionsParsing, DefaultsWhenNothingIsGiven) {
  AgentOptions o;
  std::string error;
  ASSERT_EQ(parse({}, &o, &error), ParseOutcome::kRun);
  EXPECT_FALSE(o.standalone);
  EXPECT_EQ(o.socketPath, "/run/velt/agent.sock");
  EXPECT_EQ(o.logPath, "");
  EXPECT_EQ(o.agentVersion, kAgentVersion);
  EXPECT_EQ(kAgentVersion, 0x02050000u);
  EXPECT_EQ(o.node, 1u);
  EXPECT_EQ(o.maxClients, 1024u);
  EXPECT_EQ(o.maxMessageBytes, 16u * 1024 * 1024);
}

TEST(AgentOptionsParsing, HelpIsRecognised) {
  AgentOptions o;
  std::string error;
  EXPECT_EQ(parse({"--standalone", "-h"}, &o, &error), ParseOutcome::kHelp);
  EXPECT_EQ(parse({"--help"}, &o, &error), ParseOutcome::kHelp);
}

TEST(AgentOptionsParsing, RefusesWhatItCannotUse) {
  struct Case {
    std::vector<std::string> words;
    std::string says;
  };
  const std::vector<Case> cases = {
      {{"--node", "0"}, "--node"},
      {{"--node", "65536"}, "--node"},
      {{"--node", "-3"}, "--node"},
      {{"--node", "12abc"}, "--node"},
      {{"--claim-version", "2.5.x"}, "--claim-version"},
      {{"--claim-version", "2.256.0.0"}, "--claim-version"},
      {{"--claim-version", "1.2.3.4.5"}, "--claim-version"},
      {{"--socket", std::string(200, 'a')}, "--socket"},
      {{"--socket", ""}, "--socket"},
      {{"--socket", "/tmp/dir/"}, "--socket"},
      {{"--state-dir", ""}, "--state-dir"},
      {{"--log", ""}, "--log"},
      {{"--allow-uid", "no-such-user-here"}, "--allow-uid"},
      {{"--allow-gid", "no-such-group-here"}, "--allow-gid"},
      {{"--bogus"}, "unknown option"},
      {{"--socket"}, "needs a value"},
      {{"--standalone", "extra"}, "unexpected argument"},
  };
  for (const Case& c : cases) {
    AgentOptions o;
    std::string error;
    EXPECT_EQ(parse(c.words, &o, &error), ParseOutcome::kUsageError) << c.words[0];
    EXPECT_NE(error.find(c.says), std::string::npos) << "error was: " << error;
  }
}

TEST(AgentVersionText, RoundTrips) {
  uint32_t v = 0;
  ASSERT_TRUE(parseVersion("2.4.5.0", &v));
  EXPECT_EQ(v, 0x02040500u);
  EXPECT_EQ(formatVersion(v), "2.4.5.0");
  ASSERT_TRUE(parseVersion("3", &v));
  EXPECT_EQ(v, 0x03000000u);
  EXPECT_EQ(formatVersion(0xff010203u), "255.1.2.3");
  EXPECT_FALSE(parseVersion("", &v));
  EXPECT_FALSE(parseVersion("2..4", &v));
}

TEST(AgentClientBounds, SizesAndTheConnectionLimitAreTaken) {
  AgentOptions o;
  std::string error;
  ASSERT_EQ(parse({}, &o, &error), ParseOutcome::kRun);
  EXPECT_EQ(o.maxUnsentTotal, size_t{256} << 20);
  EXPECT_EQ(o.maxUnsentBytes, size_t{64} << 20);
  EXPECT_EQ(o.maxClients, 1024u);
  ASSERT_EQ(parse({"--max-unsent-total", "1G", "--max-unsent", "16777216", "--max-clients", "16"},
                  &o, &error),
            ParseOutcome::kRun)
      << error;
  EXPECT_EQ(o.maxUnsentTotal, size_t{1} << 30);
  EXPECT_EQ(o.maxUnsentBytes, size_t{16} << 20);
  EXPECT_EQ(o.maxClients, 16u);
}

TEST(AgentClientBounds, BadValuesAreUsageErrors) {
  AgentOptions o;
  std::string error;
  // Less than one largest frame, no number, a unit we do not know, too many.
  for (const char* bad : {"1M", "M", "64X", "", "99999999G"}) {
    EXPECT_EQ(parse({"--max-unsent-total", bad}, &o, &error), ParseOutcome::kUsageError) << bad;
    EXPECT_NE(error.find("--max-unsent-total"), std::string::npos) << error;
  }
  EXPECT_EQ(parse({"--max-clients", "15"}, &o, &error), ParseOutcome::kUsageError);
  EXPECT_EQ(parse({"--max-clients", "many"}, &o, &error), ParseOutcome::kUsageError);
}

TEST(AgentTopologyOptions, InterfacesAndLinkPollAreTaken) {
  AgentOptions o;
  std::string error;
  ASSERT_EQ(parse({"--standalone"}, &o, &error), ParseOutcome::kRun);
  EXPECT_TRUE(o.interfaces.matches("eth0"));
  EXPECT_EQ(o.linkPollMs, 200u);
  ASSERT_EQ(parse({"--interfaces", "sxn*,ib0", "--link-poll-ms", "50"}, &o, &error),
            ParseOutcome::kRun)
      << error;
  EXPECT_TRUE(o.interfaces.matches("sxn3"));
  EXPECT_FALSE(o.interfaces.matches("eth0"));
  EXPECT_EQ(o.linkPollMs, 50u);
  ASSERT_EQ(parse({"--interfaces", "none"}, &o, &error), ParseOutcome::kRun);
  EXPECT_FALSE(o.interfaces.matches("sxn0"));
}

TEST(AgentTopologyOptions, BadValuesAreUsageErrors) {
  AgentOptions o;
  std::string error;
  EXPECT_EQ(parse({"--interfaces", "sxn0,,sxn1"}, &o, &error), ParseOutcome::kUsageError);
  EXPECT_EQ(error.rfind("--interfaces: ", 0), 0u) << error;
  EXPECT_EQ(parse({"--link-poll-ms", "10"}, &o, &error), ParseOutcome::kUsageError);
  EXPECT_NE(error.find("50..10000"), std::string::npos) << error;
  EXPECT_EQ(parse({"--link-poll-ms", "200ms"}, &o, &error), ParseOutcome::kUsageError);
}

}  // namespace
}  // namespace agent
}  // namespace velt
