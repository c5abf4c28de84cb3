#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Platform/FXErrorUtil.h"
#include "Platform/QiXDocument.h"
#include "Support/PlatformTestSupport.h"

namespace {

// Typed attribute access by kind: 'i' Int, 'u' UInt, 'l' Int64, 'L' UInt64. Values go as text.
template <class T>
CQiError Get(const CQiXNode& node, CQiError (CQiXNode::*get)(const std::string&, T&) const,
             std::string& out) {
  T value = 77;  // what a failed read must leave
  CQiError error = (node.*get)("Links", value);
  out = std::to_string(value);
  return error;
}
CQiError ReadAs(char kind, const CQiXNode& node, std::string& out) {
  switch (kind) {
    case 'i':
      return Get(node, &CQiXNode::GetAttributeInt, out);
    case 'u':
      return Get(node, &CQiXNode::GetAttributeUInt, out);
    case 'l':
      return Get(node, &CQiXNode::GetAttributeInt64, out);
    default:
      return Get(node, &CQiXNode::GetAttributeUInt64, out);
  }
}
CQiError WriteAs(char kind, CQiXNode& node, const std::string& text) {
  switch (kind) {
    case 'i':
      return node.SetAttributeInt("Links", int32_t(std::stoll(text)));
    case 'u':
      return node.SetAttributeUInt("Links", uint32_t(std::stoull(text)));
    case 'l':
      return node.SetAttributeInt64("Links", std::stoll(text));
    default:
      return node.SetAttributeUInt64("Links", std::stoull(text));
  }
}

// Each layout of the same small document, as exact text.
struct SFormatCase {
  const char* name;
  uint32_t flags;
  const char* expected;
};

void PrintTo(const SFormatCase& c, std::ostream* out) { *out << c.name; }

class QiXFormatTable : public ::testing::TestWithParam<SFormatCase> {};

TEST_P(QiXFormatTable, SavesTheDocumentInThatLayout) {
  CQiXDocument document;
  CQiXNode root, a, b;
  ASSERT_TRUE(document.CreateRootElement("Metadata", root).IsSuccess());
  ASSERT_TRUE(root.AddChildElement("Filesystem", a).IsSuccess());
  ASSERT_TRUE(a.SetAttributeInt("Links", 1).IsSuccess());
  ASSERT_TRUE(a.AddChildElement("Inner", b).IsSuccess());
  std::string text;
  ASSERT_TRUE(document.SaveToString(text, GetParam().flags).IsSuccess());
  EXPECT_EQ(text, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, QiXFormatTable,
    ::testing::Values(
        SFormatCase{"Default", BQiXFormatDefault,
                    "<?xml version=\"1.0\"?>\n<Metadata>\n  <Filesystem Links=\"1\">\n    "
                    "<Inner />\n  </Filesystem>\n</Metadata>\n"},
        SFormatCase{"Plain", 0,
                    "<?xml version=\"1.0\"?>\n<Metadata>\n<Filesystem Links=\"1\">\n<Inner "
                    "/>\n</Filesystem>\n</Metadata>\n"},
        SFormatCase{"Raw", BQiXFormatRaw,
                    "<?xml version=\"1.0\"?><Metadata><Filesystem Links=\"1\"><Inner/>"
                    "</Filesystem></Metadata>"},
        SFormatCase{"Bom", BQiXFormatWriteBom | BQiXFormatCompact,
                    "\xEF\xBB\xBF<Metadata><Filesystem Links=\"1\"><Inner/>"
                    "</Filesystem></Metadata>"}),
    [](const ::testing::TestParamInfo<SFormatCase>& info) { return info.param.name; });

// Text that is not a well-formed document, with the exact message.
struct SMalformedCase {
  const char* name;
  std::string text;
  const char* message;
};

void PrintTo(const SMalformedCase& c, std::ostream* out) { *out << c.name; }

class QiXMalformedTable : public ::testing::TestWithParam<SMalformedCase> {};

TEST_P(QiXMalformedTable, IsRefusedWithTheParsersDescription) {
  CQiXDocument document;
  CQiXNode root;
  ASSERT_TRUE(document.CreateRootElement("Previous", root).IsSuccess());
  CQiError error = document.LoadFromString(GetParam().text);
  ASSERT_TRUE(error.IsWin32(QiErrorCode::InvalidData)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), GetParam().message);
  // A failed load leaves nothing behind, not even the previous content.
  EXPECT_TRUE(document.IsEmpty());
  EXPECT_TRUE(document.GetRootElement(root).IsWin32(QiErrorCode::NotFound));
}

INSTANTIATE_TEST_SUITE_P(
    Malformed, QiXMalformedTable,
    ::testing::Values(
        SMalformedCase{"Empty", "", "Malformed XML at offset 0: No document element found"},
        SMalformedCase{"Unclosed", "<Metadata><Filesystem Links=\"1\" />",
                       "Malformed XML at offset 33: Start-end tags mismatch"},
        SMalformedCase{"UnquotedAttribute", "<a x=1/>",
                       "Malformed XML at offset 5: Error parsing element attribute"},
        SMalformedCase{"TwoRoots", "<a/><b/>", "Malformed XML: more than one root element"},
        SMalformedCase{"NulByte", std::string("<a x=\"1\0\"/>", 10),
                       "Malformed XML at offset 7: NUL byte"}),
    [](const ::testing::TestParamInfo<SMalformedCase>& info) { return info.param.name; });

// Reading attributes: what the attribute holds, which reader, and the result. A refused read
// leaves the caller's value as it was. A number that reads is written back by the typed writer
// as the same text, and survives a save and a load.
struct SReadRow {
  const char* stored;  // nullptr: the attribute is absent
  char kind;
  const char* code;  // see ErrorCode
};
class QiXReadTable : public ::testing::TestWithParam<SReadRow> {};

TEST_P(QiXReadTable, ReadsOrRefusesAndRoundTrips) {
  const SReadRow& r = GetParam();
  CQiXDocument document;
  CQiXNode root, fs;
  ASSERT_TRUE(document.CreateRootElement("Metadata", root).IsSuccess());
  ASSERT_TRUE(root.AddChildElement("Filesystem", fs).IsSuccess());
  ASSERT_TRUE(r.stored == nullptr || fs.SetAttribute("Links", r.stored).IsSuccess());
  std::string value, raw, saved;
  CQiError error = ReadAs(r.kind, fs, value);
  EXPECT_EQ(ErrorCode(error), r.code) << error.AsString();
  if (error.IsError()) {
    const std::string type = std::string(isupper(r.kind) || r.kind == 'u' ? "unsigned" : "signed") +
                             (tolower(r.kind) == 'l' ? " 64-bit" : " 32-bit");
    EXPECT_EQ(error.GetMessage(),
              r.stored == nullptr
                  ? std::string("Attribute [Links] not found on element [Filesystem]")
                  : "Attribute [Links] of element [Filesystem] is not a " + type + " number: [" +
                        r.stored + "]");
    EXPECT_EQ(value, "77");
    return;
  }
  EXPECT_EQ(value, r.stored);
  ASSERT_TRUE(WriteAs(r.kind, fs, "0").IsSuccess() && WriteAs(r.kind, fs, r.stored).IsSuccess());
  ASSERT_TRUE(fs.GetAttribute("Links", raw).IsSuccess());
  EXPECT_EQ(raw, r.stored);
  CQiXDocument loaded;
  CQiXNode loadedRoot, loadedFs;
  ASSERT_TRUE(document.SaveToString(saved, BQiXFormatCompact).IsSuccess());
  ASSERT_TRUE(loaded.LoadFromString(saved).IsSuccess() && loaded.GetRootElement(loadedRoot).IsSuccess() &&
              loadedRoot.GetChildElement("Filesystem", loadedFs).IsSuccess()) << saved;
  ASSERT_TRUE(ReadAs(r.kind, loadedFs, value).IsSuccess()) << saved;
  EXPECT_EQ(value, r.stored) << saved;
}

INSTANTIATE_TEST_SUITE_P(
    Reads, QiXReadTable,
    ::testing::Values(
        SReadRow{"-9223372036854775808", 'l', "ok"}, SReadRow{"18446744073709551615", 'L', "ok"},
        SReadRow{"-2147483648", 'i', "ok"}, SReadRow{"4294967295", 'u', "ok"},
        SReadRow{nullptr, 'i', "W1168"}, SReadRow{"", 'l', "W13"}, SReadRow{" 12", 'i', "W13"},
        SReadRow{"-1", 'L', "W13"}, SReadRow{"2147483648", 'i', "W13"},
        SReadRow{"4294967296", 'u', "W13"}, SReadRow{"9223372036854775808", 'l', "W13"}));

// Names and values that would make the saved text malformed are refused up front.
struct SRefusedCase {
  const char* name;
  std::string elementName;
  std::string attributeValue;
  const char* message;  // nullptr: accepted
};

void PrintTo(const SRefusedCase& c, std::ostream* out) { *out << c.name; }

class QiXRefusedTable : public ::testing::TestWithParam<SRefusedCase> {};

TEST_P(QiXRefusedTable, RefusesWhatXmlCannotHold) {
  const SRefusedCase& c = GetParam();
  CQiXDocument document, loaded;
  CQiXNode root, child;
  ASSERT_TRUE(document.CreateRootElement("R", root).IsSuccess());
  CQiError error = root.AddChildElement(c.elementName, child);
  if (error.IsSuccess()) error = child.SetAttribute("A", c.attributeValue);
  std::string text, value;
  ASSERT_TRUE(document.SaveToString(text, BQiXFormatCompact).IsSuccess());
  if (c.message != nullptr) {
    ASSERT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter)) << error.AsString();
    EXPECT_EQ(error.GetMessage(), c.message);
    // Nothing half-made is left in the document.
    EXPECT_TRUE(text == "<R/>" || text == "<R><" + c.elementName + "/></R>") << text;
    return;
  }
  ASSERT_TRUE(error.IsSuccess()) << error.AsString();
  ASSERT_TRUE(loaded.LoadFromString(text).IsSuccess()) << text;
  ASSERT_TRUE(loaded.GetRootElement(root).IsSuccess());
  ASSERT_TRUE(root.GetChildElement(c.elementName, child).IsSuccess());
  ASSERT_TRUE(child.GetAttribute("A", value).IsSuccess());
  EXPECT_EQ(value, c.attributeValue);
}

INSTANTIATE_TEST_SUITE_P(
    Refused, QiXRefusedTable,
    ::testing::Values(
        SRefusedCase{"EmptyName", "", "v", "XML name is empty"},
        SRefusedCase{"DigitFirst", "1st", "v",
                     "Invalid XML name [1st]: character at offset 0 is not allowed"},
        SRefusedCase{"Blank", "File system", "v",
                     "Invalid XML name [File system]: character at offset 4 is not allowed"},
        SRefusedCase{"BadUtf8Name", "a\xff", "v",
                     "Invalid XML name [a\xff]: character at offset 1 is not allowed"},
        SRefusedCase{"NulInName", std::string("a\0b", 3), "v",
                     "Invalid XML name [a\\x00b]: character at offset 1 is not allowed"},
        SRefusedCase{"BadUtf8Value", "E", "caf\xe9", "XML text is not valid UTF-8 at offset 3"},
        SRefusedCase{"SurrogateValue", "E", "\xed\xa0\x80",
                     "XML text is not valid UTF-8 at offset 0"},
        SRefusedCase{"ControlValue", "E", "a\x01",
                     "XML text cannot hold control character 0x01 at offset 1"},
        SRefusedCase{"Utf8Everywhere", "Dat\xc3\xa9i-1.x:y",
                     "/d\xc3\xa9j\xc3\xa0/\xe2\x82\xac/\xf0\x9f\x93\x81", nullptr},
        SRefusedCase{"SpecialCharacters", "E", "<&>\"' \t\n\r end", nullptr}),
    [](const ::testing::TestParamInfo<SRefusedCase>& info) { return info.param.name; });

TEST(QiXDocument, ChildrenComeInDocumentOrderAndTextIsSkipped) {
  CQiXDocument document;
  ASSERT_TRUE(document
                  .LoadFromString("\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                  "<List>text<A n=\"1\"/><!-- c --><B/><A n=\"2\">inner</A></List>")
                  .IsSuccess());
  CQiXNode root, firstA, missing;
  ASSERT_TRUE(document.GetRootElement(root).IsSuccess());
  std::string names, text;
  for (const CQiXNode& child : root.GetChildElements()) names += child.GetName();
  EXPECT_EQ(names, "ABA");
  EXPECT_EQ(root.GetChildElements()[2].GetAttributeNames(), std::vector<std::string>{"n"});
  ASSERT_TRUE(root.GetChildElement("A", firstA).IsSuccess());
  EXPECT_EQ(firstA, root.GetChildElements()[0]);
  ASSERT_TRUE(root.GetChildElements()[2].GetText(text).IsSuccess());
  EXPECT_EQ(text, "inner");
  CQiError error = root.GetChildElement("C", missing);
  ASSERT_TRUE(error.IsWin32(QiErrorCode::NotFound));
  EXPECT_EQ(error.GetMessage(), "Element [C] not found in element [List]");
  EXPECT_FALSE(missing.IsValid());
  // The byte order mark and the declaration are accepted on load, not written back.
  ASSERT_TRUE(document.SaveToString(text, BQiXFormatCompact).IsSuccess());
  EXPECT_EQ(text, "<List>text<A n=\"1\"/><B/><A n=\"2\">inner</A></List>");
}

TEST(QiXDocument, EmptyDocumentsAndHandlesFailClearly) {
  CQiXDocument document;
  CQiXNode root, empty, child;
  std::string text = "unchanged", got;
  int64_t v = 0;
  for (CQiError error : {document.GetRootElement(root), document.SaveToString(text, 12),
                         empty.AddChildElement("A", child), empty.GetAttributeInt64("A", v),
                         empty.SetAttribute("A", "x"), empty.SetText("x")})
    got += ErrorCode(error) + " " + error.GetMessage() + "\n";
  EXPECT_EQ(got,
            "W1168 XML document has no root element\n"
            "W1168 XML document has no root element to save\n"
            "W6 XML node handle is empty\nW6 XML node handle is empty\n"
            "W6 XML node handle is empty\nW6 XML node handle is empty\n");
  EXPECT_EQ(text, "unchanged");
  EXPECT_TRUE(empty.GetName().empty() && empty.GetChildElements().empty() &&
              !empty.HasAttribute("A"));
}

}  // namespace
