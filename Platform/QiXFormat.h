// BQiXFormat: format flags of CQiXDocument::SaveToString, combined with '|'.
//
// The bits follow pugixml's own format flags, the library under the XML layer:
//   0                        one element per line, not indented, with the declaration
//   BQiXFormatIndent         one element per line, indented by two blanks per level
//   BQiXFormatWriteBom       starts the text with the UTF-8 byte order mark
//   BQiXFormatRaw            no line breaks, no indentation, no blank before "/>" (wins over
//                            Indent)
//   BQiXFormatNoDeclaration  leaves out the declaration <?xml version="1.0"?>
// Raw and NoDeclaration together (4 | 8, BQiXFormatCompact) give the compact one-line form kept
// in scan-database records:
//   <Metadata><Filesystem Attributes="33188" Links="1" FileSizeOnDisk="4096" CreationTime="0"/></Metadata>
// The text is always UTF-8.
#pragma once

#include <cstdint>

enum BQiXFormat : uint32_t {
  BQiXFormatIndent = 0x01,
  BQiXFormatWriteBom = 0x02,
  BQiXFormatRaw = 0x04,
  BQiXFormatNoDeclaration = 0x08,

  BQiXFormatDefault = BQiXFormatIndent,
  BQiXFormatCompact = BQiXFormatRaw | BQiXFormatNoDeclaration,
  BQiXFormatAll = BQiXFormatIndent | BQiXFormatWriteBom | BQiXFormatRaw | BQiXFormatNoDeclaration,
};
