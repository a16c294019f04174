#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

#include "pnl/err.h"
#include "pnl/xml.h"

/// The entry point of a fuzz target: libFuzzer calls it with each input.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
/// Called once before that, by targets that have something to prepare. A target runs in an empty
/// directory of its own.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fuzz {

inline std::string_view Text(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Reports a finding: ends the program.
inline void Check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

/// Writes a file, its directories too, as somebody else would, without the care that the library
/// takes.
inline void Put(const std::string& path, std::string_view text) {
  const std::filesystem::path dir = std::filesystem::path(path).parent_path();
  if (!dir.empty()) std::filesystem::create_directories(dir);
  std::ofstream file(path, std::ios::binary);
  file << text << std::flush;
  Check(file.good(), "the input's file is written");
}

/// Nothing where the text is no XML.
inline std::optional<pnl_xml::Xml> ReadXml(std::string_view text) try {
  return pnl_xml::Xml(text);
} catch (const pnl_err::Error& error) {
  Check(error.type() == pnl_xml::kError && error.object() == "parse", "a text that is no XML");
  return std::nullopt;
}

}  // namespace fuzz
