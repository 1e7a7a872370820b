// Tests of the UTF-8 check and repair of outside text, against what
// protobuf itself takes in a string field.
#include "utf8_text.h"

#include <gtest/gtest.h>

#include <google/protobuf/stubs/logging.h>

#include <string>

#include "velt.pb.h"

namespace {

using velt::wire::isValidUtf8;
using velt::wire::utf8Text;

// Whether a NodeEntry with this name parses again once sent.
bool protobufTakes(const std::string& name) {
  velt::proto::NodeEntry e;
  e.set_name(name);
  velt::proto::NodeEntry back;
  return back.ParseFromString(e.SerializeAsString());
}

TEST(Utf8Text, AgreesWithProtobuf) {
  google::protobuf::SetLogHandler(nullptr);  // its complaints are expected here
  const std::string cases[] = {
      "alpha", "n\xc3\xb6" "de", "\xe5\x8c\x97", "\xf0\x9f\x98\x80",  // valid
      "\xc3",                                                        // cut short
      "\xc0\xaf", "\xe0\x80\xaf", "\xf0\x80\x80\xaf",                 // overlong
      "\xed\xa0\x80",                                                // a surrogate
      "\xf4\x90\x80\x80",                                            // past U+10FFFF
      "\xff", "latin-1 \xe9t\xe9",                                   // not UTF-8
  };
  for (const std::string& c : cases) {
    EXPECT_EQ(isValidUtf8(c), protobufTakes(c)) << c;
    EXPECT_TRUE(protobufTakes(utf8Text(c, 255))) << c;
  }
}

TEST(Utf8Text, RepairsBadBytesAndKeepsGoodText) {
  EXPECT_EQ(utf8Text("alpha", 255), "alpha");
  EXPECT_EQ(utf8Text("n\xc3\xb6" "de", 255), "n\xc3\xb6" "de");
  EXPECT_EQ(utf8Text("latin-1 \xe9t\xe9", 255), "latin-1 ?t?");
  EXPECT_EQ(utf8Text("\xc3", 255), "?");
}

TEST(Utf8Text, CutsAtACharacterBoundary) {
  // 254 ASCII bytes and a 2-byte character: the character does not fit.
  std::string text = std::string(254, 'a') + "\xc3\xb6";
  EXPECT_EQ(utf8Text(text, 255), std::string(254, 'a'));
  EXPECT_EQ(utf8Text(text, 256), text);
  EXPECT_EQ(utf8Text("\xe5\x8c\x97\xe5\x8c\x97", 5), "\xe5\x8c\x97");
}

}  // namespace
