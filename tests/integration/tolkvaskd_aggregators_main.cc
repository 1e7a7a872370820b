// tolkvaskd as a test build that registers an aggregator, which the shipped
// daemon never does: the aggregate device ml0 over the switch networks 0
// and 1 (sxn0 and sxn1), following the larger of their cooked groups in the
// aggregate group "ml0Membership". Everything else is the shipped daemon.
#include "AMController.h"
#include "tolkbrel.h"

namespace {

AMAggregator* createMl0(AMController* ctl) {
  AMAggregator* ml0 = new AMAggregator("ml0", "ml0", kMl0MembershipName, 0, nullptr);
  ctl->appendAggregator(ml0);
  ctl->createAggListener(ml0, 0);
  ctl->createAggListener(ml0, 1);
  return ml0;
}

void startAggregators(AMController* ctl) {
  for (int i = 0; i < ctl->aggregators.count(); ++i) {
    if (ctl->aggregators[i]) ctl->aggregators[i]->start(nullptr);
  }
}

const AMAggregatorSetup kMl0Setup = {createMl0, startAggregators};

}  // namespace

int main(int argc, char** argv) {
  AMController::setAggregatorSetupForTesting(&kMl0Setup);
  return tolkbrel_main(argc, argv);
}
