// The fuzz targets, one per surface a client can reach: plain request lines,
// MCP messages, and statements. Each takes arbitrary bytes, runs them the way
// the daemon would, and aborts when a promise breaks (a reply that is not a
// JSON object, a request with a readable id left unanswered, an error other
// than the language's own). libFuzzer calls them through libfuzzer_entry.cpp;
// corpus_test.cpp runs the checked-in seeds through them in every build.
#pragma once

#include <cstddef>
#include <cstdint>

namespace glimmerstrand::fuzz {

int requestLines(const std::uint8_t* data, std::size_t size);
int mcpMessages(const std::uint8_t* data, std::size_t size);
int statements(const std::uint8_t* data, std::size_t size);

}  // namespace glimmerstrand::fuzz
