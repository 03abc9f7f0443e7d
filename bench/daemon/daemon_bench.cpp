// What an agent waits for: a statement's round trip through the daemon's
// socket. The daemon runs on a simulated desktop with one application of
// 10,000 elements, unchanged between reads.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

// A window of 100 groups, each with 99 buttons and texts.
std::string bigFixture() {
  std::string children;
  for (int g = 0; g < 100; ++g) {
    std::string items;
    for (int k = 0; k < 99; ++k) {
      if (k) items += ',';
      const int y = (g * 99 + k) % 800;
      items += k % 3 ? R"({"role":"AXButton","title":"Action )" + std::to_string(g * 99 + k) + R"(","frame":[10,)" +
                           std::to_string(y) +
                           R"(,80,20],"onPress":[{"append":{"key":"counter","attribute":"AXValue","text":"+"}}]})"
                     : R"({"role":"AXStaticText","value":"Label )" + std::to_string(k) + R"(","frame":[100,)" +
                           std::to_string(y) + R"(,80,20]})";
    }
    if (g) children += ',';
    children += R"({"role":"AXGroup","frame":[0,0,800,800],"children":[)" + items + "]}";
  }
  return R"({"apps":[{"pid":900,"bundleId":"com.example.big","name":"Big","frontmost":true,"windows":[)"
         R"({"role":"AXWindow","title":"Big","frame":[0,0,1000,800],"children":[)"
         R"({"key":"counter","role":"AXStaticText","value":"0","frame":[900,10,80,20]},)" +
         children + "]}]}]}";
}

class Daemon {
 public:
  Daemon() {
    folder_ = std::filesystem::temp_directory_path() / ("daemon-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder_);
    std::ofstream(folder_ / "apps.json") << bigFixture();
    socket_ = (folder_ / "glimmerstrand/glimmerstrand.sock").string();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::setenv("XDG_STATE_HOME", folder_.c_str(), 1);
      ::setenv("GLIMMERSTRAND_PLATFORM", "sim", 1);
      ::setenv("GLIMMERSTRAND_SIM_APPS", (folder_ / "apps.json").c_str(), 1);
      ::setenv("GLIMMERSTRAND_LOG_LEVEL", "silent", 1);
      ::setenv("GLIMMERSTRAND_CURSOR", "0", 1);
      ::unsetenv("GLIMMERSTRAND_SOCKET");
      ::execl(GLIMMERSTRAND_NATIVE_BINARY, GLIMMERSTRAND_NATIVE_BINARY, "daemon", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    for (int k = 0; k < 500 && fd_ < 0; ++k) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      fd_ = connectTo(socket_);
    }
    if (fd_ < 0) throw std::runtime_error("the daemon did not come up");
  }
  ~Daemon() {
    ::close(fd_);
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    std::filesystem::remove_all(folder_);
  }

  std::string roundTrip(const std::string& line) {
    std::string out = line + "\n";
    if (::write(fd_, out.data(), out.size()) != static_cast<ssize_t>(out.size())) throw std::runtime_error("write");
    std::string reply;
    char buffer[65536];
    while (reply.find('\n') == std::string::npos) {
      ssize_t n = ::read(fd_, buffer, sizeof buffer);
      if (n <= 0) throw std::runtime_error("read");
      reply.append(buffer, static_cast<std::size_t>(n));
    }
    return reply;
  }

 private:
  static int connectTo(const std::string& path) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    ::close(fd);
    return -1;
  }
  std::filesystem::path folder_;
  std::string socket_;
  pid_t pid_ = -1;
  int fd_ = -1;
};

void BM_QueryOverSocket(benchmark::State& state) {
  Daemon daemon;
  const std::string request =
      R"({"operation":"query","params":{"app":"Big","cypher":"MATCH (b:Button) RETURN b LIMIT 20"}})";
  auto first = daemon.roundTrip(request);  // the first read makes the mirror
  if (first.find("\"ok\":true") == std::string::npos) state.SkipWithError(first.c_str());
  for (auto _ : state) benchmark::DoNotOptimize(daemon.roundTrip(request));
}
BENCHMARK(BM_QueryOverSocket)->Unit(benchmark::kMillisecond)->Repetitions(3)->ReportAggregatesOnly(true);

// One press and a read: the press settles (60 ms of quiet after its change)
// before the read, so the figure to compare is that settle plus our own cost.
void BM_PressAndReadOverSocket(benchmark::State& state) {
  Daemon daemon;
  const std::string request = R"({"operation":"do","params":{"app":"Big","cypher":"CALL ui.press(\"Action 1\"); )"
                              R"(MATCH (b:Button {name:\"Action 1\"}) RETURN b.name"}})";
  auto first = daemon.roundTrip(request);
  if (first.find("\"ok\":true") == std::string::npos) state.SkipWithError(first.c_str());
  for (auto _ : state) benchmark::DoNotOptimize(daemon.roundTrip(request));
}
BENCHMARK(BM_PressAndReadOverSocket)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

}  // namespace
