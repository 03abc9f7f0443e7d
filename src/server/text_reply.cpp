// The text form of a statement result for the shell client. Images cannot
// travel in a text, so each is written to a file in the state folder and
// named by an "image: " line.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "core/base64.h"
#include "core/errors.h"
#include "server/request_handler.h"
#include "server/result_text.h"

namespace glimmerstrand::server {
namespace {

using core::JSONValue;

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
      const auto bytes = core::base64Bytes(image.base64);
      if (!bytes || !writePrivateFile(path, {reinterpret_cast<const char*>(bytes->data()), bytes->size()}))
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
