// Python's own HTTP server on loopback, serving pages a test or bench writes
// into a folder, and logging every request it receives: what a browser sent
// is read from that log, outside our code. Stopped by pid with the object.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <string>

namespace glimmerstrand::testing {

class PageServer {
 public:
  /// Writes each page (a file name and its HTML) into `folder`, then serves
  /// the folder on a free loopback port.
  PageServer(const std::filesystem::path& folder, const std::map<std::string, std::string>& pages);
  ~PageServer();
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  std::string url(const std::string& page) const;
  /// Every request line the server logged so far.
  std::string log() const;

 private:
  std::filesystem::path log_;
  int port_;
  pid_t pid_ = -1;
};

/// Removes a folder a browser wrote into: its helper processes end a moment
/// after it and may still write there, so the removal is tried again a few
/// times. Throws when the folder stays.
void removeBrowserFolder(const std::filesystem::path& folder);

class TestDesktop;
/// Ends a suite of browsers: its desktop (and so the browsers), its server,
/// then the folder they wrote into; the pointers are left null.
void endBrowserSuite(TestDesktop*& desktop, PageServer*& server, const std::filesystem::path& folder);

/// A page of `rows` table rows of two cells ("Item n", n × 7) under the
/// heading "Price list": about four accessible objects per row.
std::string priceListPage(int rows);

}  // namespace glimmerstrand::testing
