// The text form of a statement result for the shell client. Images cannot
// travel in a text, so each is written to a file in the state folder and
// named by an "image: " line.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "core/errors.h"
#include "server/request_handler.h"
#include "server/result_text.h"

namespace glimmerstrand::server {
namespace {

using core::JSONValue;

std::optional<std::string> decodeBase64(std::string_view text) {
  static const std::array<int, 256> table = [] {
    std::array<int, 256> t{};
    t.fill(-1);
    const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (int i = 0; i < 64; ++i) t[static_cast<unsigned char>(alphabet[i])] = i;
    return t;
  }();
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  std::string out;
  out.reserve(text.size() * 3 / 4);
  std::uint32_t bits = 0;
  int count = 0;
  for (unsigned char c : text) {
    int value = table[c];
    if (value < 0) return std::nullopt;
    bits = (bits << 6) | static_cast<std::uint32_t>(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out.push_back(static_cast<char>((bits >> count) & 0xFF));
    }
  }
  if (count >= 6) return std::nullopt;  // one stray character cannot end a byte
  return out;
}

// Creates `folder` and any missing parents with mode 0700; an existing
// folder keeps its mode.
void makePrivateFolder(const std::filesystem::path& folder) {
  std::filesystem::path built;
  for (const auto& part : folder) {
    built /= part;
    if (::mkdir(built.c_str(), 0700) == 0) {
      ::chmod(built.c_str(), 0700);  // the umask may have taken bits away
    } else if (errno != EEXIST) {
      throw std::system_error(errno, std::generic_category(), "mkdir " + built.string());
    }
  }
  struct stat info {};
  if (::stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
    throw std::system_error(ENOTDIR, std::generic_category(), "mkdir " + folder.string());
}

bool writePrivateFile(const std::filesystem::path& path, std::string_view bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool ok = ::fchmod(fd, 0600) == 0;
  while (ok && !bytes.empty()) {
    ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    ok = written > 0;
    if (ok) bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return ::close(fd) == 0 && ok;
}

std::string imageFileName(std::size_t ordinal, const std::string& format) {
  std::string stamp = internetDateText(std::chrono::system_clock::now());
  for (auto& c : stamp)
    if (c == ':') c = '-';
  return stamp + "-" + std::to_string(ordinal) + "." + (format == "png" ? "png" : "jpg");
}

}  // namespace

JSONValue renderTextReply(const core::CypherResult& result, const std::filesystem::path& stateDir) {
  std::string text = renderResultText(result);
  std::filesystem::path folder = stateDir / "screenshots";
  std::size_t ordinal = 0;
  for (const auto& statement : result.results) {
    if (!statement->images) continue;
    for (const auto& image : *statement->images) {
      makePrivateFolder(folder);
      std::filesystem::path path = folder / imageFileName(++ordinal, image.format);
      auto bytes = decodeBase64(image.base64);
      if (!bytes || !writePrivateFile(path, *bytes))
        throw core::GlimmerstrandError(core::codes::internal, "画像を書けませんでした: " + path.string());
      text += "\nimage: " + path.string();
    }
  }
  JSONValue::Object reply{{"text", std::move(text)}};
  if (result.error)
    core::put(reply, "error",
              JSONValue::Object{{"statement", result.error->statement}, {"message", result.error->message}});
  return reply;
}

}  // namespace glimmerstrand::server
