#include "server/sha256.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

namespace glimmerstrand::server {
namespace {

constexpr std::array<std::uint32_t, 64> roundConstants{
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

}  // namespace

Sha256::Sha256()
    : state_{0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19} {}

void Sha256::block(const std::uint8_t* data) {
  std::array<std::uint32_t, 64> w{};
  for (int i = 0; i < 16; ++i)
    w[i] = (std::uint32_t{data[4 * i]} << 24) | (std::uint32_t{data[4 * i + 1]} << 16) |
           (std::uint32_t{data[4 * i + 2]} << 8) | std::uint32_t{data[4 * i + 3]};
  for (int i = 16; i < 64; ++i) {
    std::uint32_t s0 = std::rotr(w[i - 15], 7) ^ std::rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
    std::uint32_t s1 = std::rotr(w[i - 2], 17) ^ std::rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
    w[i] = w[i - 16] + s0 + w[i - 7] + s1;
  }
  auto [a, b, c, d, e, f, g, h] = state_;
  for (int i = 0; i < 64; ++i) {
    std::uint32_t t1 =
        h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) + ((e & f) ^ (~e & g)) + roundConstants[i] + w[i];
    std::uint32_t t2 = (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  std::array<std::uint32_t, 8> add{a, b, c, d, e, f, g, h};
  for (int i = 0; i < 8; ++i) state_[i] += add[i];
}

void Sha256::update(std::string_view bytes) {
  totalBytes_ += bytes.size();
  const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
  std::size_t size = bytes.size();
  if (pendingSize_ > 0) {
    std::size_t take = std::min(size, 64 - pendingSize_);
    std::memcpy(pending_.data() + pendingSize_, data, take);
    pendingSize_ += take;
    data += take;
    size -= take;
    if (pendingSize_ < 64) return;
    block(pending_.data());
    pendingSize_ = 0;
  }
  for (; size >= 64; data += 64, size -= 64) block(data);
  std::memcpy(pending_.data(), data, size);
  pendingSize_ = size;
}

std::string Sha256::hexDigest() {
  std::uint64_t bits = totalBytes_ * 8;
  std::string padding(1, '\x80');
  padding.append((pendingSize_ < 56 ? 55 - pendingSize_ : 119 - pendingSize_), '\0');
  for (int i = 7; i >= 0; --i) padding.push_back(static_cast<char>((bits >> (8 * i)) & 0xFF));
  update(padding);
  std::string hex;
  char digits[9];
  for (auto word : state_) {
    std::snprintf(digits, sizeof digits, "%08x", word);
    hex += digits;
  }
  return hex;
}

}  // namespace glimmerstrand::server
