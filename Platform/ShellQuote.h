// ShellQuote: puts user-controlled text (paths, device names) into a /bin/sh command line so
// that it stays one word holding exactly its bytes: no name can run a command, add an argument
// or end the line.
//
//   Word("/gpfs/fs1/job 7/policy")  ->  '/gpfs/fs1/job 7/policy'
//   Word("/gpfs/fs1/policy")        ->  /gpfs/fs1/policy       (left bare: nothing to quote)
//   Word("-rf")                     ->  ./-rf                  (Argument only: never an option)
//   InDoubleQuotes("/a/$(id)/")     ->  /a/\$(id)/             (for text already inside "...")
//
// Word leaves text bare when it holds only letters, digits and "/._-+,:@%=" (so an ordinary
// path gives exactly the text it would have unquoted); anything else is enclosed in single
// quotes, a single quote written as '\''. Argument does the same and puts "./" before a
// relative word that starts with '-'. InDoubleQuotes escapes the four characters that keep a
// meaning between double quotes ($ ` \ ") with a backslash; a newline needs no escape there
// (the shell keeps it as part of the word; a backslash before it would remove it).
//
// Stateless; safe from any thread.
#pragma once

#include <string>
#include <string_view>

class ShellQuote {
 public:
  static bool IsBare(std::string_view text);
  static std::string Word(std::string_view text);
  static std::string Argument(std::string_view text);
  static std::string InDoubleQuotes(std::string_view text);
};
