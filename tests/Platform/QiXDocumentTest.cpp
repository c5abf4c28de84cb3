#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>

#include "Platform/FXErrorUtil.h"
#include "Platform/QiXDocument.h"

namespace {

// Builds the metadata blob of a scan-database record the way the record does.
std::string FormMetadata(int32_t attributes, int32_t links, int64_t sizeOnDisk,
                         int64_t creationTime) {
  CQiXDocument document;
  CQiXNode root, filesystem;
  EXPECT_TRUE(document.CreateRootElement("Metadata", root).IsSuccess());
  EXPECT_TRUE(root.AddChildElement("Filesystem", filesystem).IsSuccess());
  EXPECT_TRUE(filesystem.SetAttributeInt("Attributes", attributes).IsSuccess());
  EXPECT_TRUE(filesystem.SetAttributeInt("Links", links).IsSuccess());
  EXPECT_TRUE(filesystem.SetAttributeInt64("FileSizeOnDisk", sizeOnDisk).IsSuccess());
  EXPECT_TRUE(filesystem.SetAttributeInt64("CreationTime", creationTime).IsSuccess());
  std::string text;
  EXPECT_TRUE(document.SaveToString(text, 4 | 8).IsSuccess());
  return text;
}

// Loads a document and returns its "Filesystem" element, failing the test otherwise.
CQiXNode LoadFilesystem(CQiXDocument& document, const std::string& text) {
  CQiXNode root, filesystem;
  CQiError error = document.LoadFromString(text);
  EXPECT_TRUE(error.IsSuccess()) << error.AsString();
  EXPECT_TRUE(document.GetRootElement(root).IsSuccess());
  EXPECT_EQ(root.GetName(), "Metadata");
  EXPECT_TRUE(root.GetChildElement("Filesystem", filesystem).IsSuccess());
  return filesystem;
}

TEST(QiXDocument, MetadataBlobIsACompactSingleLine) {
  EXPECT_EQ(FormMetadata(0100644, 2, int64_t{1} << 40, -86400),
            "<Metadata><Filesystem Attributes=\"33188\" Links=\"2\" "
            "FileSizeOnDisk=\"1099511627776\" CreationTime=\"-86400\"/></Metadata>");
  EXPECT_EQ(BQiXFormatRaw | BQiXFormatNoDeclaration, 4u | 8u);
  EXPECT_EQ(static_cast<uint32_t>(BQiXFormatCompact), 12u);
}

TEST(QiXDocument, MetadataBlobReadsBackIntoTheSameValues) {
  const int64_t creation = -(int64_t{1} << 40);
  std::string text = FormMetadata(040755, 17, std::numeric_limits<int64_t>::max(), creation);
  CQiXDocument document;
  CQiXNode filesystem = LoadFilesystem(document, text);
  int32_t attributes = 0, links = 0;
  int64_t sizeOnDisk = 0, creationTime = 0;
  ASSERT_TRUE(filesystem.GetAttributeInt("Attributes", attributes).IsSuccess());
  ASSERT_TRUE(filesystem.GetAttributeInt("Links", links).IsSuccess());
  ASSERT_TRUE(filesystem.GetAttributeInt64("FileSizeOnDisk", sizeOnDisk).IsSuccess());
  ASSERT_TRUE(filesystem.GetAttributeInt64("CreationTime", creationTime).IsSuccess());
  EXPECT_EQ(attributes, 040755);
  EXPECT_EQ(links, 17);
  EXPECT_EQ(sizeOnDisk, std::numeric_limits<int64_t>::max());
  EXPECT_EQ(creationTime, creation);
  std::vector<std::string> names = {"Attributes", "Links", "FileSizeOnDisk", "CreationTime"};
  EXPECT_EQ(filesystem.GetAttributeNames(), names);
}

// Every numeric kind, at its limits, through a save and a load in each layout.
struct SNumberCase {
  const char* name;
  std::function<CQiError(CQiXNode&)> set;
  std::function<bool(const CQiXNode&)> readsBackEqual;
  const char* text;  // the attribute's text in the document
};

void PrintTo(const SNumberCase& c, std::ostream* out) { *out << c.name; }

template <typename T>
SNumberCase NumberCase(const char* name, CQiError (CQiXNode::*set)(const std::string&, T),
                       CQiError (CQiXNode::*get)(const std::string&, T&) const, T value,
                       const char* text) {
  return SNumberCase{
      name, [=](CQiXNode& node) { return (node.*set)("V", value); },
      [=](const CQiXNode& node) {
        T read{};
        return (node.*get)("V", read).IsSuccess() && read == value;
      },
      text};
}

class QiXNumberTable : public ::testing::TestWithParam<std::tuple<SNumberCase, uint32_t>> {};

TEST_P(QiXNumberTable, RoundTripsThroughText) {
  const auto& [c, flags] = GetParam();
  CQiXDocument document;
  CQiXNode root;
  ASSERT_TRUE(document.CreateRootElement("R", root).IsSuccess());
  ASSERT_TRUE(c.set(root).IsSuccess());
  std::string rawText;
  ASSERT_TRUE(root.GetAttribute("V", rawText).IsSuccess());
  EXPECT_EQ(rawText, c.text);

  std::string saved;
  ASSERT_TRUE(document.SaveToString(saved, flags).IsSuccess());
  CQiXDocument loaded;
  ASSERT_TRUE(loaded.LoadFromString(saved).IsSuccess()) << saved;
  CQiXNode loadedRoot;
  ASSERT_TRUE(loaded.GetRootElement(loadedRoot).IsSuccess());
  EXPECT_TRUE(c.readsBackEqual(loadedRoot)) << saved;
}

INSTANTIATE_TEST_SUITE_P(
    Numbers, QiXNumberTable,
    ::testing::Combine(
        ::testing::Values(
            NumberCase<int64_t>("Int64TwoTo40", &CQiXNode::SetAttributeInt64,
                                &CQiXNode::GetAttributeInt64, int64_t{1} << 40, "1099511627776"),
            NumberCase<int64_t>("Int64MinusTwoTo40", &CQiXNode::SetAttributeInt64,
                                &CQiXNode::GetAttributeInt64, -(int64_t{1} << 40),
                                "-1099511627776"),
            NumberCase<int64_t>("Int64Min", &CQiXNode::SetAttributeInt64,
                                &CQiXNode::GetAttributeInt64,
                                std::numeric_limits<int64_t>::min(), "-9223372036854775808"),
            NumberCase<int64_t>("Int64Max", &CQiXNode::SetAttributeInt64,
                                &CQiXNode::GetAttributeInt64,
                                std::numeric_limits<int64_t>::max(), "9223372036854775807"),
            NumberCase<uint64_t>("UInt64Max", &CQiXNode::SetAttributeUInt64,
                                 &CQiXNode::GetAttributeUInt64,
                                 std::numeric_limits<uint64_t>::max(), "18446744073709551615"),
            NumberCase<uint64_t>("UInt64TwoTo63", &CQiXNode::SetAttributeUInt64,
                                 &CQiXNode::GetAttributeUInt64, uint64_t{1} << 63,
                                 "9223372036854775808"),
            NumberCase<int32_t>("IntMin", &CQiXNode::SetAttributeInt, &CQiXNode::GetAttributeInt,
                                std::numeric_limits<int32_t>::min(), "-2147483648"),
            NumberCase<int32_t>("IntZero", &CQiXNode::SetAttributeInt, &CQiXNode::GetAttributeInt,
                                0, "0"),
            NumberCase<uint32_t>("UIntMax", &CQiXNode::SetAttributeUInt,
                                 &CQiXNode::GetAttributeUInt,
                                 std::numeric_limits<uint32_t>::max(), "4294967295")),
        ::testing::Values(0u, 1u, 4u, 8u, 12u, 15u)),
    [](const ::testing::TestParamInfo<std::tuple<SNumberCase, uint32_t>>& info) {
      return std::string(std::get<0>(info.param).name) + "_Flags" +
             std::to_string(std::get<1>(info.param));
    });

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
        SFormatCase{"NoDeclaration", BQiXFormatNoDeclaration,
                    "<Metadata>\n<Filesystem Links=\"1\">\n<Inner />\n</Filesystem>\n</Metadata>\n"},
        SFormatCase{"Compact", 4 | 8,
                    "<Metadata><Filesystem Links=\"1\"><Inner/></Filesystem></Metadata>"},
        SFormatCase{"RawWinsOverIndent", 1 | 4 | 8,
                    "<Metadata><Filesystem Links=\"1\"><Inner/></Filesystem></Metadata>"},
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
        SMalformedCase{"PlainText", "Metadata", "Malformed XML at offset 8: No document element found"},
        SMalformedCase{"CommentOnly", "<!-- x -->",
                       "Malformed XML at offset 10: No document element found"},
        SMalformedCase{"Unclosed", "<Metadata><Filesystem Links=\"1\" />",
                       "Malformed XML at offset 33: Start-end tags mismatch"},
        SMalformedCase{"Mismatched", "<a></b>",
                       "Malformed XML at offset 5: Start-end tags mismatch"},
        SMalformedCase{"UnquotedAttribute", "<a x=1/>",
                       "Malformed XML at offset 5: Error parsing element attribute"},
        SMalformedCase{"TwoRoots", "<a/><b/>", "Malformed XML: more than one root element"},
        SMalformedCase{"NulByte", std::string("<a x=\"1\0\"/>", 10),
                       "Malformed XML at offset 7: NUL byte"}),
    [](const ::testing::TestParamInfo<SMalformedCase>& info) { return info.param.name; });

// Reading attributes: what the attribute holds, which reader, and the result.
enum class EReader { Int, UInt, Int64, UInt64 };

struct SReadCase {
  const char* name;
  const char* stored;  // nullptr: the attribute is absent
  EReader reader;
  uint32_t code;       // 0: success
  const char* message;
};

void PrintTo(const SReadCase& c, std::ostream* out) { *out << c.name; }

class QiXReadTable : public ::testing::TestWithParam<SReadCase> {};

TEST_P(QiXReadTable, ReadsOrRefusesAndLeavesTheDefault) {
  const SReadCase& c = GetParam();
  CQiXDocument document;
  CQiXNode root, filesystem;
  ASSERT_TRUE(document.CreateRootElement("Metadata", root).IsSuccess());
  ASSERT_TRUE(root.AddChildElement("Filesystem", filesystem).IsSuccess());
  if (c.stored != nullptr) {
    ASSERT_TRUE(filesystem.SetAttribute("Links", c.stored).IsSuccess());
  }

  CQiError error;
  bool untouched = true;
  switch (c.reader) {
    case EReader::Int: {
      int32_t v = 77;
      error = filesystem.GetAttributeInt("Links", v);
      untouched = v == 77;
      break;
    }
    case EReader::UInt: {
      uint32_t v = 77;
      error = filesystem.GetAttributeUInt("Links", v);
      untouched = v == 77;
      break;
    }
    case EReader::Int64: {
      int64_t v = 77;
      error = filesystem.GetAttributeInt64("Links", v);
      untouched = v == 77;
      break;
    }
    case EReader::UInt64: {
      uint64_t v = 77;
      error = filesystem.GetAttributeUInt64("Links", v);
      untouched = v == 77;
      break;
    }
  }
  if (c.code == 0) {
    EXPECT_TRUE(error.IsSuccess()) << error.AsString();
    EXPECT_FALSE(untouched);
    return;
  }
  ASSERT_TRUE(error.IsWin32(c.code)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), c.message);
  EXPECT_TRUE(untouched);
}

INSTANTIATE_TEST_SUITE_P(
    Reads, QiXReadTable,
    ::testing::Values(
        SReadCase{"Good", "5", EReader::Int, 0, ""},
        SReadCase{"Missing", nullptr, EReader::Int, QiErrorCode::NotFound,
                  "Attribute [Links] not found on element [Filesystem]"},
        SReadCase{"Missing64", nullptr, EReader::UInt64, QiErrorCode::NotFound,
                  "Attribute [Links] not found on element [Filesystem]"},
        SReadCase{"Word", "many", EReader::Int, QiErrorCode::InvalidData,
                  "Attribute [Links] of element [Filesystem] is not a signed 32-bit number: "
                  "[many]"},
        SReadCase{"Empty", "", EReader::Int64, QiErrorCode::InvalidData,
                  "Attribute [Links] of element [Filesystem] is not a signed 64-bit number: []"},
        SReadCase{"TrailingGarbage", "12abc", EReader::Int64, QiErrorCode::InvalidData,
                  "Attribute [Links] of element [Filesystem] is not a signed 64-bit number: "
                  "[12abc]"},
        SReadCase{"LeadingBlank", " 12", EReader::Int, QiErrorCode::InvalidData,
                  "Attribute [Links] of element [Filesystem] is not a signed 32-bit number: "
                  "[ 12]"},
        SReadCase{"PlusSign", "+12", EReader::Int, QiErrorCode::InvalidData,
                  "Attribute [Links] of element [Filesystem] is not a signed 32-bit number: "
                  "[+12]"},
        SReadCase{"Hex", "0x10", EReader::UInt, QiErrorCode::InvalidData,
                  "Attribute [Links] of element [Filesystem] is not a unsigned 32-bit number: "
                  "[0x10]"},
        SReadCase{"NegativeUnsigned", "-1", EReader::UInt64, QiErrorCode::InvalidData,
                  "Attribute [Links] of element [Filesystem] is not a unsigned 64-bit number: "
                  "[-1]"},
        SReadCase{"IntOverflow", "2147483648", EReader::Int, QiErrorCode::InvalidData,
                  "Attribute [Links] of element [Filesystem] is not a signed 32-bit number: "
                  "[2147483648]"},
        SReadCase{"UIntOverflow", "4294967296", EReader::UInt, QiErrorCode::InvalidData,
                  "Attribute [Links] of element [Filesystem] is not a unsigned 32-bit number: "
                  "[4294967296]"},
        SReadCase{"Int64Overflow", "9223372036854775808", EReader::Int64,
                  QiErrorCode::InvalidData,
                  "Attribute [Links] of element [Filesystem] is not a signed 64-bit number: "
                  "[9223372036854775808]"},
        SReadCase{"Fraction", "1.5", EReader::UInt64, QiErrorCode::InvalidData,
                  "Attribute [Links] of element [Filesystem] is not a unsigned 64-bit number: "
                  "[1.5]"}),
    [](const ::testing::TestParamInfo<SReadCase>& info) { return info.param.name; });

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
  CQiXDocument document;
  CQiXNode root, child;
  ASSERT_TRUE(document.CreateRootElement("R", root).IsSuccess());
  CQiError error = root.AddChildElement(c.elementName, child);
  if (error.IsSuccess()) error = child.SetAttribute("A", c.attributeValue);
  if (c.message == nullptr) {
    ASSERT_TRUE(error.IsSuccess()) << error.AsString();
    std::string text;
    ASSERT_TRUE(document.SaveToString(text, BQiXFormatCompact).IsSuccess());
    CQiXDocument loaded;
    CQiXNode loadedRoot, loadedChild;
    ASSERT_TRUE(loaded.LoadFromString(text).IsSuccess()) << text;
    ASSERT_TRUE(loaded.GetRootElement(loadedRoot).IsSuccess());
    ASSERT_TRUE(loadedRoot.GetChildElement(c.elementName, loadedChild).IsSuccess());
    std::string value;
    ASSERT_TRUE(loadedChild.GetAttribute("A", value).IsSuccess());
    EXPECT_EQ(value, c.attributeValue);
    return;
  }
  ASSERT_TRUE(error.IsWin32(QiErrorCode::InvalidParameter)) << error.AsString();
  EXPECT_EQ(error.GetMessage(), c.message);
  // Nothing half-made is left in the document.
  std::string text;
  ASSERT_TRUE(document.SaveToString(text, BQiXFormatCompact).IsSuccess());
  EXPECT_TRUE(text == "<R/>" || text == "<R><" + c.elementName + "/></R>") << text;
}

INSTANTIATE_TEST_SUITE_P(
    Refused, QiXRefusedTable,
    ::testing::Values(
        SRefusedCase{"EmptyName", "", "v", "XML name is empty"},
        SRefusedCase{"DigitFirst", "1st", "v",
                     "Invalid XML name [1st]: character at offset 0 is not allowed"},
        SRefusedCase{"Blank", "File system", "v",
                     "Invalid XML name [File system]: character at offset 4 is not allowed"},
        SRefusedCase{"Angle", "a<b", "v",
                     "Invalid XML name [a<b]: character at offset 1 is not allowed"},
        SRefusedCase{"NulInName", std::string("a\0b", 3), "v",
                     "Invalid XML name [a\\x00b]: character at offset 1 is not allowed"},
        SRefusedCase{"BadUtf8Name", "a\xff", "v",
                     "Invalid XML name [a\xff]: character at offset 1 is not allowed"},
        SRefusedCase{"BadUtf8Value", "E", "caf\xe9", "XML text is not valid UTF-8 at offset 3"},
        SRefusedCase{"OverlongValue", "E", "\xc0\xaf", "XML text is not valid UTF-8 at offset 0"},
        SRefusedCase{"SurrogateValue", "E", "\xed\xa0\x80",
                     "XML text is not valid UTF-8 at offset 0"},
        SRefusedCase{"ControlValue", "E", "a\x01",
                     "XML text cannot hold control character 0x01 at offset 1"},
        SRefusedCase{"NulValue", "E", std::string("a\0", 2),
                     "XML text cannot hold control character 0x00 at offset 1"},
        SRefusedCase{"SpecialCharacters", "E", "<&>\"' \t\n\r end", nullptr},
        SRefusedCase{"Utf8Everywhere", "Dat\xc3\xa9i-1.x:y", "/d\xc3\xa9j\xc3\xa0/\xe2\x82\xac/\xf0\x9f\x93\x81",
                     nullptr},
        SRefusedCase{"EmptyValue", "E", "", nullptr}),
    [](const ::testing::TestParamInfo<SRefusedCase>& info) { return info.param.name; });

TEST(QiXDocument, ChildrenComeInDocumentOrderAndTextIsSkipped) {
  CQiXDocument document;
  ASSERT_TRUE(document
                  .LoadFromString("<?xml version=\"1.0\"?>\n<List>text<A n=\"1\"/><!-- c --><B/>"
                                  "<A n=\"2\">inner</A></List>")
                  .IsSuccess());
  CQiXNode root;
  ASSERT_TRUE(document.GetRootElement(root).IsSuccess());
  std::vector<CQiXNode> children = root.GetChildElements();
  ASSERT_EQ(children.size(), 3u);
  EXPECT_EQ(children[0].GetName(), "A");
  EXPECT_EQ(children[1].GetName(), "B");
  EXPECT_EQ(children[2].GetName(), "A");
  CQiXNode firstA;
  ASSERT_TRUE(root.GetChildElement("A", firstA).IsSuccess());
  EXPECT_EQ(firstA, children[0]);
  std::string text;
  ASSERT_TRUE(children[2].GetText(text).IsSuccess());
  EXPECT_EQ(text, "inner");
  CQiXNode missing;
  CQiError error = root.GetChildElement("C", missing);
  ASSERT_TRUE(error.IsWin32(QiErrorCode::NotFound));
  EXPECT_EQ(error.GetMessage(), "Element [C] not found in element [List]");
  EXPECT_FALSE(missing.IsValid());
}

TEST(QiXDocument, ByteOrderMarkAndDeclarationAreAcceptedOnLoad) {
  CQiXDocument document;
  ASSERT_TRUE(document.LoadFromString("\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
                                      "<Metadata><Filesystem Links=\"3\"/></Metadata>")
                  .IsSuccess());
  std::string text;
  ASSERT_TRUE(document.SaveToString(text, BQiXFormatCompact).IsSuccess());
  EXPECT_EQ(text, "<Metadata><Filesystem Links=\"3\"/></Metadata>");
}

TEST(QiXDocument, EmptyDocumentsAndHandlesFailClearly) {
  CQiXDocument document;
  EXPECT_TRUE(document.IsEmpty());
  CQiXNode root;
  CQiError error = document.GetRootElement(root);
  ASSERT_TRUE(error.IsWin32(QiErrorCode::NotFound));
  EXPECT_EQ(error.GetMessage(), "XML document has no root element");
  std::string text = "unchanged";
  error = document.SaveToString(text, BQiXFormatCompact);
  ASSERT_TRUE(error.IsWin32(QiErrorCode::NotFound));
  EXPECT_EQ(error.GetMessage(), "XML document has no root element to save");
  EXPECT_EQ(text, "unchanged");

  CQiXNode empty;
  EXPECT_FALSE(empty.IsValid());
  EXPECT_EQ(empty.GetName(), "");
  EXPECT_TRUE(empty.GetChildElements().empty());
  EXPECT_FALSE(empty.HasAttribute("A"));
  CQiXNode child;
  error = empty.AddChildElement("A", child);
  ASSERT_TRUE(error.IsWin32(QiErrorCode::InvalidHandle));
  EXPECT_EQ(error.GetMessage(), "XML node handle is empty");
  int64_t v = 0;
  EXPECT_TRUE(empty.GetAttributeInt64("A", v).IsWin32(QiErrorCode::InvalidHandle));
  EXPECT_TRUE(empty.SetAttribute("A", "x").IsWin32(QiErrorCode::InvalidHandle));
  EXPECT_TRUE(empty.SetText("x").IsWin32(QiErrorCode::InvalidHandle));
}

}  // namespace
