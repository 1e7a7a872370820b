// The cluster bus's fragments without corosync: the header, the send queue
// under flow control and failures, and reassembly with its bounds.
#include "cpg_framing.h"

#include <errno.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velt {
namespace agent {
namespace {

// A transport that records fragments and refuses on cue.
struct FakeTransport {
  std::vector<std::string> sent;     // header + payload, as CPG would carry them
  size_t acceptBeforeRefusing = SIZE_MAX;
  SendQueue::SendResult refusal = SendQueue::SendResult::kTryAgain;

  SendQueue::SendFn fn() {
    return [this](const char* h, size_t hl, const char* p, size_t pl) {
      if (acceptBeforeRefusing == 0) return refusal;
      if (acceptBeforeRefusing != SIZE_MAX) --acceptBeforeRefusing;
      sent.push_back(std::string(h, hl) + std::string(p, pl));
      return SendQueue::SendResult::kSent;
    };
  }
};

std::string pattern(size_t n, char seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(seed + i % 251);
  return s;
}

// Feeds fragments as one sender and returns the complete messages.
std::vector<std::string> reassemble(FragmentReassembler* r, uint64_t sender,
                                    const std::vector<std::string>& fragments,
                                    size_t* refused = nullptr) {
  std::vector<std::string> out;
  for (const std::string& f : fragments) {
    std::string m, why;
    uint32_t id = 0;
    auto o = r->feed(sender, f.data(), f.size(), &m, &id, &why);
    if (o == FragmentReassembler::Outcome::kComplete) out.push_back(m);
    if (o == FragmentReassembler::Outcome::kRefused && refused != nullptr) ++*refused;
  }
  return out;
}

// ---------------------------------------------------------------- header

TEST(FragmentHeader, RoundTripsAndRefusesWhatIsNotOurs) {
  FragmentHeader h;
  h.messageId = 0xdeadbeef;
  h.index = 3;
  h.count = 70000;
  char buf[FragmentHeader::kSize];
  h.encode(buf);
  FragmentHeader d;
  std::string why;
  ASSERT_TRUE(FragmentHeader::decode(buf, sizeof buf, &d, &why)) << why;
  EXPECT_EQ(d.messageId, 0xdeadbeefu);
  EXPECT_EQ(d.index, 3u);
  EXPECT_EQ(d.count, 70000u);

  EXPECT_FALSE(FragmentHeader::decode(buf, sizeof buf - 1, &d, &why));
  EXPECT_NE(why.find("shorter than its header"), std::string::npos) << why;
  char bad[FragmentHeader::kSize];
  memcpy(bad, buf, sizeof bad);
  bad[0] = 'x';
  EXPECT_FALSE(FragmentHeader::decode(bad, sizeof bad, &d, &why));
  memcpy(bad, buf, sizeof bad);
  bad[1] = 2;
  EXPECT_FALSE(FragmentHeader::decode(bad, sizeof bad, &d, &why));
  h.index = 5;
  h.count = 5;   // index beyond the count
  h.encode(bad);
  EXPECT_FALSE(FragmentHeader::decode(bad, sizeof bad, &d, &why));
  h.index = 0;
  h.count = 0;
  h.encode(bad);
  EXPECT_FALSE(FragmentHeader::decode(bad, sizeof bad, &d, &why));
}

// ------------------------------------------------------------- SendQueue

TEST(SendQueue, CutsMessagesIntoFragmentsThatReassembleInOrder) {
  SendQueue q(1 << 20, 1 << 20);
  q.setFragmentPayload(100);
  std::vector<std::string> messages = {"", "a", pattern(100, 'b'), pattern(101, 'c'),
                                       pattern(1000, 'd'), pattern(1234, 'e')};
  for (const std::string& m : messages) ASSERT_EQ(q.push(m), 0);
  FakeTransport t;
  EXPECT_EQ(q.flush(t.fn()), SendQueue::SendResult::kSent);
  EXPECT_FALSE(q.hasUnsent());
  // 1 + 1 + 1 + 2 + 10 + 13 fragments, none above the payload size.
  EXPECT_EQ(t.sent.size(), 28u);
  for (const std::string& f : t.sent) EXPECT_LE(f.size(), FragmentHeader::kSize + 100);

  FragmentReassembler r(1 << 20);
  EXPECT_EQ(reassemble(&r, 1, t.sent), messages);
  EXPECT_EQ(r.partialCount(), 0u);
}

TEST(SendQueue, TryAgainKeepsTheRestInOrderWithoutLossOrRepeats) {
  SendQueue q(1 << 20, 1 << 20);
  q.setFragmentPayload(10);
  std::vector<std::string> messages;
  for (int i = 0; i < 20; ++i) {
    messages.push_back(pattern(5 + i * 7, static_cast<char>('a' + i)));
    ASSERT_EQ(q.push(messages.back()), 0);
  }
  FakeTransport t;
  int refusals = 0;
  // The transport takes three fragments at a time, then refuses: a
  // message is often cut in the middle.
  for (;;) {
    t.acceptBeforeRefusing = 3;
    SendQueue::SendResult r = q.flush(t.fn());
    if (r == SendQueue::SendResult::kSent) break;
    ASSERT_EQ(r, SendQueue::SendResult::kTryAgain);
    ++refusals;
    ASSERT_LT(refusals, 1000);
  }
  EXPECT_GT(refusals, 10);
  FragmentReassembler r(1 << 20);
  EXPECT_EQ(reassemble(&r, 1, t.sent), messages);
}

TEST(SendQueue, KeepsMessagesUntilTheyComeBackAndBoundsWhatWaits) {
  SendQueue q(100, 1000);
  q.setFragmentPayload(50);
  EXPECT_EQ(q.push(std::string(60, 'a')), 0);
  EXPECT_EQ(q.push(std::string(40, 'b')), 0);
  EXPECT_EQ(q.push("c"), EAGAIN) << "the queue holds 100 bytes";
  EXPECT_EQ(q.push(std::string(1001, 'x')), EMSGSIZE);
  FakeTransport t;
  ASSERT_EQ(q.flush(t.fn()), SendQueue::SendResult::kSent);
  // Sent is not done: until CPG brings them back they still count.
  EXPECT_EQ(q.queuedBytes(), 100u);
  EXPECT_EQ(q.push("c"), EAGAIN);
  EXPECT_FALSE(q.delivered(99)) << "an id never sent";
  EXPECT_TRUE(q.delivered(1));
  EXPECT_EQ(q.queuedBytes(), 40u);
  EXPECT_EQ(q.push("c"), 0);
  // Coming back in order: the second one's return also settles the first.
  EXPECT_TRUE(q.delivered(2));
  EXPECT_EQ(q.messageCount(), 1u);
  EXPECT_FALSE(q.delivered(3)) << "not sent yet";
  // A message larger than the queue's bound still goes out alone.
  SendQueue empty(100, 1000);
  EXPECT_EQ(empty.push(std::string(500, 'z')), 0);
}

TEST(SendQueue, WhenTheTransportFailsEverythingNotBackIsHandedOverInOrder) {
  SendQueue q(1 << 20, 1 << 20);
  q.setFragmentPayload(4);
  ASSERT_EQ(q.push("first-message"), 0);
  ASSERT_EQ(q.push("second"), 0);
  ASSERT_EQ(q.push("third"), 0);
  FakeTransport t;
  t.acceptBeforeRefusing = 5;   // the first (4 fragments) and half of the second
  t.refusal = SendQueue::SendResult::kFailed;
  EXPECT_EQ(q.flush(t.fn()), SendQueue::SendResult::kFailed);
  EXPECT_TRUE(q.delivered(1));  // the first came back before the failure
  std::deque<std::string> rest = q.takeUndelivered();
  ASSERT_EQ(rest.size(), 2u);
  EXPECT_EQ(rest[0], "second");
  EXPECT_EQ(rest[1], "third");
  EXPECT_EQ(q.queuedBytes(), 0u);
  EXPECT_FALSE(q.hasUnsent());
  // Ids go on growing: a new connection never sees an id twice.
  ASSERT_EQ(q.push("fourth"), 0);
  EXPECT_EQ(q.nextMessageId(), 5u);
}

TEST(SendQueue, AMessageBeingSentKeepsItsFragmentSize) {
  SendQueue q(1 << 20, 1 << 20);
  q.setFragmentPayload(10);
  std::string m = pattern(95, 'q');
  ASSERT_EQ(q.push(m), 0);
  FakeTransport t;
  t.acceptBeforeRefusing = 4;
  ASSERT_EQ(q.flush(t.fn()), SendQueue::SendResult::kTryAgain);
  q.setFragmentPayload(50);
  t.acceptBeforeRefusing = SIZE_MAX;
  ASSERT_EQ(q.flush(t.fn()), SendQueue::SendResult::kSent);
  EXPECT_EQ(t.sent.size(), 10u);
  FragmentReassembler r(1 << 20);
  EXPECT_EQ(reassemble(&r, 1, t.sent), std::vector<std::string>{m});
}

// --------------------------------------------------- FragmentReassembler

std::vector<std::string> fragmentsOf(const std::string& m, size_t payload, uint32_t firstId = 1) {
  SendQueue q(SIZE_MAX, SIZE_MAX);
  q.setFragmentPayload(payload);
  for (uint32_t i = 1; i < firstId; ++i) {
    q.push("");
  }
  FakeTransport skip;
  q.flush(skip.fn());
  q.push(m);
  FakeTransport t;
  q.flush(t.fn());
  return t.sent;
}

TEST(FragmentReassembler, InterleavedSendersAreReassembledApart) {
  FragmentReassembler r(1 << 20);
  std::string a = pattern(1000, 'A'), b = pattern(777, 'B');
  auto fa = fragmentsOf(a, 64), fb = fragmentsOf(b, 50);
  uint64_t ka = FragmentReassembler::senderKey(1, 100), kb = FragmentReassembler::senderKey(2, 100);
  std::vector<std::string> gotA, gotB;
  size_t i = 0, j = 0;
  while (i < fa.size() || j < fb.size()) {
    for (int k = 0; k < 3 && i < fa.size(); ++k, ++i) {
      auto v = reassemble(&r, ka, {fa[i]});
      gotA.insert(gotA.end(), v.begin(), v.end());
    }
    for (int k = 0; k < 2 && j < fb.size(); ++k, ++j) {
      auto v = reassemble(&r, kb, {fb[j]});
      gotB.insert(gotB.end(), v.begin(), v.end());
    }
  }
  EXPECT_EQ(gotA, std::vector<std::string>{a});
  EXPECT_EQ(gotB, std::vector<std::string>{b});
  EXPECT_EQ(r.partialCount(), 0u);
}

TEST(FragmentReassembler, BoundsWhatOneSenderMayHold) {
  FragmentReassembler r(1000);
  uint64_t k = FragmentReassembler::senderKey(3, 1);
  auto big = fragmentsOf(pattern(1250, 'x'), 100);   // 13 fragments
  size_t refused = 0;
  EXPECT_TRUE(reassemble(&r, k, big, &refused).empty());
  // The fragment that crosses the bound is refused and the partial message
  // dropped; the two after it have no beginning any more.
  EXPECT_EQ(refused, 3u);
  EXPECT_EQ(r.partialBytes(k), 0u);
  // A single fragment above the bound is refused at once.
  refused = 0;
  EXPECT_TRUE(reassemble(&r, k, fragmentsOf(pattern(1001, 'y'), 2000), &refused).empty());
  EXPECT_EQ(refused, 1u);
  // Exactly the bound still passes, and the sender is heard again.
  std::string ok = pattern(1000, 'z');
  EXPECT_EQ(reassemble(&r, k, fragmentsOf(ok, 100)), std::vector<std::string>{ok});
}

TEST(FragmentReassembler, BrokenOrderDropsThePartialAndTheSenderStartsOver) {
  FragmentReassembler r(1 << 20);
  uint64_t k = FragmentReassembler::senderKey(4, 1);
  auto f = fragmentsOf(pattern(300, 'm'), 100);   // 3 fragments
  ASSERT_EQ(f.size(), 3u);
  size_t refused = 0;
  // Fragment 2 before fragment 1.
  EXPECT_TRUE(reassemble(&r, k, {f[0], f[2], f[1]}, &refused).empty());
  EXPECT_EQ(refused, 2u);
  EXPECT_EQ(r.partialCount(), 0u);
  // A continuation without a beginning.
  refused = 0;
  EXPECT_TRUE(reassemble(&r, k, {f[1]}, &refused).empty());
  EXPECT_EQ(refused, 1u);
  // A new first fragment abandons an unfinished message.
  std::string next = "whole";
  auto g = fragmentsOf(next, 100, 2);
  EXPECT_EQ(reassemble(&r, k, {f[0], g[0]}), std::vector<std::string>{next});
  EXPECT_EQ(r.partialCount(), 0u);
  // Garbage is refused without disturbing anything else.
  refused = 0;
  EXPECT_TRUE(reassemble(&r, k, {std::string("short"), std::string(40, '\xff')}, &refused).empty());
  EXPECT_EQ(refused, 2u);
}

TEST(FragmentReassembler, SendersThatLeftLoseTheirPartialMessages) {
  FragmentReassembler r(1 << 20);
  uint64_t stay = FragmentReassembler::senderKey(1, 10), gone = FragmentReassembler::senderKey(2, 20);
  auto f = fragmentsOf(pattern(250, 'p'), 100);
  reassemble(&r, stay, {f[0]});
  reassemble(&r, gone, {f[0]});
  EXPECT_EQ(r.partialCount(), 2u);
  r.keepOnly({stay});
  EXPECT_EQ(r.partialCount(), 1u);
  EXPECT_EQ(r.partialBytes(gone), 0u);
  EXPECT_EQ(reassemble(&r, stay, {f[1], f[2]}), std::vector<std::string>{pattern(250, 'p')});
}

}  // namespace
}  // namespace agent
}  // namespace velt
