// A provider process for the tests against a real veltd: one GSController
// and one GSProvider (group and instance from the command line), driven by
// commands on standard input, one per line; every answer and callback is
// one line on standard output. The dispatch thread runs the callbacks, the
// main thread issues the requests, as in the daemon.
//
//   join | leave | goodbye | nphase       (the last: the next join asks for n phases)
//   change VALUE TIMELIMIT                (an n-phase state value change)
//   msg TEXT                              (a one-phase provider message)
//   autovote approve|reject|none          (how nPhaseCb votes)
//   quit
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "gs_client.h"
#include "gs_controller.h"

using namespace velt_gscl_V1;

namespace {

std::mutex outMu;

void say(const std::string& line) {
  std::lock_guard<std::mutex> g(outMu);
  fprintf(stdout, "%s\n", line.c_str());
  fflush(stdout);
}

std::string members(const tk_gs_membership_t* m) {
  std::string out;
  if (m == nullptr) return "-";
  for (unsigned int i = 0; i < m->gs_count; ++i) {
    if (!out.empty()) out += ",";
    out += std::to_string(m->gs_providers[i].gs_provider_fields.gs_instance_number) + "/" +
           std::to_string(m->gs_providers[i].gs_provider_fields.gs_node_number);
  }
  return out.empty() ? "-" : out;
}

class ScriptedProvider : public GSProvider {
 public:
  ScriptedProvider(const char* group, int instance) : GSProvider(group, instance, "gscl_test_provider") {}

  tk_gs_callback_rc_t nPhaseCb(const tk_gs_n_phase_notification_t* n) override {
    say("cb nphase " + describe(n));
    if (autovote_ != TK_GS_NO_VOTE) {
      tk_gs_rc_t rc = vote(autovote_, nullptr, nullptr, TK_GS_NO_VOTE);
      say(std::string("rc vote ") + gscl_rc_name(rc));
    }
    return TK_GS_CALLBACK_OK;
  }
  tk_gs_callback_rc_t approvedCb(const tk_gs_approved_notification_t* n) override {
    say("cb approved " + describe(n));
    return TK_GS_CALLBACK_OK;
  }
  tk_gs_callback_rc_t rejectedCb(const tk_gs_rejected_notification_t* n) override {
    say("cb rejected " + describe(n));
    return TK_GS_CALLBACK_OK;
  }
  tk_gs_callback_rc_t announcementCb(const tk_gs_announcement_notification_t* n) override {
    say(std::string("cb announcement summary=") + gscl_summary_code_names(n->gs_summary_code) +
        " state=" + gscl_client_state_name(getClientState()));
    return TK_GS_CALLBACK_OK;
  }
  tk_gs_callback_rc_t delayedErrorCb(const tk_gs_delayed_error_notification_t* n) override {
    say(std::string("cb delayed request=") + gscl_request_name(n->gs_request_type) +
        " rc=" + gscl_rc_name(n->gs_delayed_return_code));
    return TK_GS_CALLBACK_OK;
  }
  void setAutovote(tk_gs_vote_t v) { autovote_ = v; }

 private:
  std::string describe(const tk_gs_protocol_notification_t* n) {
    const tk_gs_proposal_t* p = n->gs_proposal;
    std::string value = "-";
    if (p->gs_proposed_state_value != nullptr) {
      value.assign(p->gs_proposed_state_value->gs_state, p->gs_proposed_state_value->gs_length);
    }
    std::string message = "-";
    if (p->gs_provider_message != nullptr) {
      message.assign(p->gs_provider_message->gs_message, p->gs_provider_message->gs_length);
    }
    return std::string("type=") + gscl_request_name(n->gs_protocol_type) +
           " state=" + gscl_client_state_name(getClientState()) +
           " summary=" + gscl_summary_code_names(n->gs_summary_code) +
           " changing=" + members(p->gs_changing_providers) + " current=" + members(p->gs_current_providers) +
           " value=" + value + " msg=" + message;
  }
  std::atomic<tk_gs_vote_t> autovote_{TK_GS_NO_VOTE};
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s GROUP INSTANCE\n", argv[0]);
    return 2;
  }
  GSController controller(0x30014);
  tk_gs_rc_t rc = TK_GS_NOT_CONNECTED;
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while ((rc = controller.initialize()) != TK_GS_OK && std::chrono::steady_clock::now() < until) {
    controller.quit();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  say(std::string("rc initialize ") + gscl_rc_name(rc));
  if (rc != TK_GS_OK) return 1;
  ScriptedProvider provider(argv[1], atoi(argv[2]));
  std::thread dispatcher([&] {
    tk_gs_rc_t d;
    while ((d = controller.dispatch(TK_GS_BLOCKING)) == TK_GS_OK) {
    }
    say(std::string("dispatch ") + gscl_rc_name(d));
  });

  bool nPhaseJoins = false;
  std::string line;
  while (std::getline(std::cin, line)) {
    std::istringstream in(line);
    std::string cmd;
    in >> cmd;
    if (cmd == "quit") break;
    if (cmd == "nphase") {
      nPhaseJoins = true;
      say("ok nphase");
    } else if (cmd == "join") {
      tk_gs_group_attributes_t a;
      memset(&a, 0, sizeof a);
      a.gs_version = 2;
      a.gs_sizeof_group_attributes = 44;
      a.gs_client_version = 2259;
      a.gs_batch_control = TK_GS_BATCH_BOTH;
      a.gs_num_phases = nPhaseJoins ? TK_GS_N_PHASE : TK_GS_1_PHASE;
      a.gs_source_reflection_num_phases = TK_GS_1_PHASE;
      a.gs_group_default_vote = TK_GS_VOTE_APPROVE;
      a.gs_merge_control = TK_GS_DISSOLVE_MERGE;
      provider.setGroupAttributes(&a);
      say(std::string("rc join ") + gscl_rc_name(provider.joinGroup()));
    } else if (cmd == "leave") {
      say(std::string("rc leave ") + gscl_rc_name(provider.leaveGroup(1, TK_GS_1_PHASE, 300)));
    } else if (cmd == "goodbye") {
      say(std::string("rc goodbye ") + gscl_rc_name(provider.goodbyeGroup()));
    } else if (cmd == "change") {
      std::string value;
      int limit = 0;
      in >> value >> limit;
      tk_gs_state_value_t sv = {static_cast<int>(value.size()), &value[0]};
      say(std::string("rc change ") + gscl_rc_name(provider.changeStateValue(&sv, TK_GS_N_PHASE, limit)));
    } else if (cmd == "msg") {
      std::string text;
      in >> text;
      tk_gs_provider_message_t m = {static_cast<int>(text.size()), &text[0]};
      say(std::string("rc msg ") + gscl_rc_name(provider.send_message(&m, TK_GS_1_PHASE, 0)));
    } else if (cmd == "autovote") {
      std::string how;
      in >> how;
      provider.setAutovote(how == "approve" ? TK_GS_VOTE_APPROVE : how == "reject" ? TK_GS_VOTE_REJECT : TK_GS_NO_VOTE);
      say("ok autovote");
    } else if (cmd == "state") {
      say(std::string("state ") + gscl_client_state_name(provider.getClientState()));
    } else {
      say("unknown command " + cmd);
    }
  }
  controller.quit();
  dispatcher.join();
  return 0;
}
