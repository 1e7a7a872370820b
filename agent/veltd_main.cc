// veltd: the node agent. Builds the Agent from its command line and runs it.
#include <stdio.h>

#include <string>

#include "agent.h"
#include "agent_options.h"
#include "velt_version.h"

int main(int argc, char** argv) {
  if (velt_print_version_when_asked(argc, argv, "veltd")) return 0;
  velt::agent::AgentOptions options;
  std::string error;
  switch (velt::agent::parseAgentOptions(argc, argv, &options, &error)) {
    case velt::agent::ParseOutcome::kHelp:
      fputs(velt::agent::agentUsage(), stdout);
      return 0;
    case velt::agent::ParseOutcome::kUsageError:
      fprintf(stderr, "veltd: %s\n%s", error.c_str(), velt::agent::agentUsage());
      return 2;
    case velt::agent::ParseOutcome::kRun:
      break;
  }
  velt::agent::Agent agent(std::move(options));
  return agent.run();
}
