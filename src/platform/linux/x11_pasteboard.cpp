#include "platform/linux/x11_pasteboard.h"

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/Xfixes.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "platform/linux/x11_connection.h"

namespace glimmerstrand::platform::linux_desktop {

namespace {

using Clock = std::chrono::steady_clock;

// Above this a transfer goes in pieces (INCR), as one property may not hold it.
constexpr std::size_t chunkBytes = 64 * 1024;
constexpr auto readLimit = std::chrono::milliseconds(1500);
constexpr auto callerLimit = std::chrono::seconds(3);

const char* const textTargets[] = {"UTF8_STRING", "text/plain;charset=utf-8", "STRING", "TEXT"};

}  // namespace

struct X11Pasteboard::State {
  // Helper thread only.
  ::Display* x = nullptr;
  ::Window own = 0;
  int fixesEvent = 0;
  Time ownedSince = CurrentTime;
  /// A large answer going out in pieces, by (requestor, property).
  struct Transfer {
    Atom type = 0;
    std::vector<std::uint8_t> data;
    std::size_t offset = 0;
  };
  std::map<std::pair<::Window, Atom>, Transfer> transfers;

  std::atomic<std::int64_t> count{0};
  std::atomic<bool> stop{false};
  int wake[2] = {-1, -1};
  std::thread thread;

  // Guards the fields below.
  std::mutex lock;
  std::deque<std::function<void()>> tasks;
  bool owned = false;
  std::map<std::string, std::vector<std::uint8_t>> contents;  // by target name

  Atom atom(const char* name) { return XInternAtom(x, name, False); }

  /// Runs `task` on the helper thread and waits for its result.
  template <typename T>
  std::optional<T> run(std::function<T()> task) {
    if (!x) return std::nullopt;
    auto promise = std::make_shared<std::promise<T>>();
    auto future = promise->get_future();
    {
      std::lock_guard guard(lock);
      tasks.push_back([promise, task = std::move(task)] { promise->set_value(task()); });
    }
    char byte = 1;
    [[maybe_unused]] auto written = ::write(wake[1], &byte, 1);
    if (future.wait_for(callerLimit) != std::future_status::ready) return std::nullopt;
    return future.get();
  }

  void loop() {
    while (!stop) {
      while (XPending(x)) {
        XEvent event;
        XNextEvent(x, &event);
        handle(event);
      }
      std::deque<std::function<void()>> now;
      {
        std::lock_guard guard(lock);
        now.swap(tasks);
      }
      for (auto& task : now) task();
      pollfd fds[2] = {{ConnectionNumber(x), POLLIN, 0}, {wake[0], POLLIN, 0}};
      ::poll(fds, 2, 500);
      if (fds[1].revents & POLLIN) {
        char buffer[64];
        [[maybe_unused]] auto n = ::read(wake[0], buffer, sizeof buffer);
      }
    }
  }

  /// Waits for an event that `wanted` takes, handling every other one, until
  /// the deadline. The event, or absent.
  std::optional<XEvent> waitFor(const std::function<bool(const XEvent&)>& wanted, Clock::time_point deadline) {
    while (Clock::now() < deadline) {
      while (XPending(x)) {
        XEvent event;
        XNextEvent(x, &event);
        if (wanted(event)) return event;
        handle(event);
      }
      pollfd fd{ConnectionNumber(x), POLLIN, 0};
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      ::poll(&fd, 1, static_cast<int>(std::max<long>(left, 1)));
    }
    return std::nullopt;
  }

  void handle(const XEvent& event) {
    if (event.type == fixesEvent + XFixesSelectionNotify) {
      // Every change of owner is a change of contents; this process's own
      // changes were counted when made.
      const auto& notify = reinterpret_cast<const XFixesSelectionNotifyEvent&>(event);
      if (notify.owner != own) ++count;
    } else if (event.type == SelectionClear) {
      std::lock_guard guard(lock);
      owned = false;
      contents.clear();
    } else if (event.type == SelectionRequest) {
      answer(event.xselectionrequest);
    } else if (event.type == PropertyNotify && event.xproperty.state == PropertyDelete) {
      continueTransfer(event.xproperty.window, event.xproperty.atom);
    }
  }

  void answer(const XSelectionRequestEvent& request) {
    XSelectionEvent reply{};
    reply.type = SelectionNotify;
    reply.requestor = request.requestor;
    reply.selection = request.selection;
    reply.target = request.target;
    reply.time = request.time;
    // Old clients name no property: the target is the property.
    const Atom property = request.property == None ? request.target : request.property;
    reply.property = None;
    std::map<std::string, std::vector<std::uint8_t>> data;
    bool isOwner;
    {
      std::lock_guard guard(lock);
      data = contents;
      isOwner = owned;
    }
    char* name = XGetAtomName(x, request.target);
    const std::string target = name ? name : "";
    if (name) XFree(name);
    if (isOwner && target == "TARGETS") {
      std::vector<Atom> targets{atom("TARGETS"), atom("TIMESTAMP")};
      for (const auto& entry : data) targets.push_back(atom(entry.first.c_str()));
      XChangeProperty(x, request.requestor, property, XA_ATOM, 32, PropModeReplace,
                      reinterpret_cast<unsigned char*>(targets.data()), static_cast<int>(targets.size()));
      reply.property = property;
    } else if (isOwner && target == "TIMESTAMP") {
      long time = static_cast<long>(ownedSince);
      XChangeProperty(x, request.requestor, property, XA_INTEGER, 32, PropModeReplace,
                      reinterpret_cast<unsigned char*>(&time), 1);
      reply.property = property;
    } else if (auto found = data.find(target); isOwner && found != data.end()) {
      const Atom type = target == "TEXT" ? atom("UTF8_STRING") : request.target;
      const auto& bytes = found->second;
      if (bytes.size() > chunkBytes) {
        // In pieces: the size first, then a piece each time the requestor
        // deletes the property, and an empty piece to end.
        XSelectInput(x, request.requestor, PropertyChangeMask);
        long size = static_cast<long>(bytes.size());
        XChangeProperty(x, request.requestor, property, atom("INCR"), 32, PropModeReplace,
                        reinterpret_cast<unsigned char*>(&size), 1);
        transfers[{request.requestor, property}] = Transfer{type, bytes, 0};
      } else {
        XChangeProperty(x, request.requestor, property, type, 8, PropModeReplace, bytes.data(),
                        static_cast<int>(bytes.size()));
      }
      reply.property = property;
    }
    XSendEvent(x, request.requestor, False, NoEventMask, reinterpret_cast<XEvent*>(&reply));
    XFlush(x);
  }

  void continueTransfer(::Window requestor, Atom property) {
    auto it = transfers.find({requestor, property});
    if (it == transfers.end()) return;
    auto& t = it->second;
    const std::size_t n = std::min(chunkBytes, t.data.size() - t.offset);
    XChangeProperty(x, requestor, property, t.type, 8, PropModeReplace, t.data.data() + t.offset, static_cast<int>(n));
    t.offset += n;
    if (n == 0) {
      XSelectInput(x, requestor, NoEventMask);
      transfers.erase(it);
    }
    XFlush(x);
  }

  /// A real server time, from a property change on the own window.
  Time now() {
    const Atom stamp = atom("GLIMMERSTRAND_TIME");
    XChangeProperty(x, own, stamp, XA_STRING, 8, PropModeAppend, nullptr, 0);
    XFlush(x);
    auto event = waitFor(
        [&](const XEvent& e) {
          return e.type == PropertyNotify && e.xproperty.window == own && e.xproperty.atom == stamp;
        },
        Clock::now() + readLimit);
    return event ? event->xproperty.time : CurrentTime;
  }

  bool own_(std::map<std::string, std::vector<std::uint8_t>> data) {
    const Atom clipboard = atom("CLIPBOARD");
    ownedSince = now();
    {
      std::lock_guard guard(lock);
      contents = std::move(data);
      owned = true;
    }
    XSetSelectionOwner(x, clipboard, own, ownedSince);
    const bool ok = XGetSelectionOwner(x, clipboard) == own;
    if (!ok) {
      std::lock_guard guard(lock);
      owned = false;
      contents.clear();
    }
    ++count;
    return ok;
  }

  /// Converts the selection to `target` and reads the answer, in pieces when
  /// the owner sends it so.
  std::optional<std::string> convert(const char* target) {
    const Atom property = atom("GLIMMERSTRAND_CLIPBOARD");
    XDeleteProperty(x, own, property);
    XConvertSelection(x, atom("CLIPBOARD"), atom(target), property, own, CurrentTime);
    XFlush(x);
    const auto deadline = Clock::now() + readLimit;
    auto notify =
        waitFor([&](const XEvent& e) { return e.type == SelectionNotify && e.xselection.requestor == own; }, deadline);
    if (!notify || notify->xselection.property == None) return std::nullopt;
    auto take = [&](Atom& type) {
      std::string out;
      long offset = 0;
      for (;;) {
        Atom actual;
        int format;
        unsigned long count, after;
        unsigned char* data = nullptr;
        if (XGetWindowProperty(x, own, property, offset, 1 << 20, False, AnyPropertyType, &actual, &format, &count,
                               &after, &data) != Success)
          break;
        type = actual;
        if (data) {
          out.append(reinterpret_cast<char*>(data), count * static_cast<unsigned long>(format / 8));
          XFree(data);
        }
        offset += static_cast<long>(count * static_cast<unsigned long>(format / 8) / 4);
        if (after == 0) break;
      }
      XDeleteProperty(x, own, property);
      XFlush(x);
      return out;
    };
    Atom type = None;
    std::string first = take(type);
    if (type != atom("INCR")) return first;
    std::string all;
    for (;;) {
      auto piece = waitFor(
          [&](const XEvent& e) {
            return e.type == PropertyNotify && e.xproperty.window == own && e.xproperty.atom == property &&
                   e.xproperty.state == PropertyNewValue;
          },
          Clock::now() + readLimit);
      if (!piece) return std::nullopt;
      std::string part = take(type);
      if (part.empty()) return all;
      all += part;
    }
  }

  std::optional<std::string> read() {
    if (XGetSelectionOwner(x, atom("CLIPBOARD")) == own) {
      std::lock_guard guard(lock);
      for (const char* target : textTargets)
        if (auto found = contents.find(target); found != contents.end())
          return std::string(found->second.begin(), found->second.end());
      return std::nullopt;
    }
    if (XGetSelectionOwner(x, atom("CLIPBOARD")) == None) return std::nullopt;
    if (auto text = convert("UTF8_STRING")) return text;
    return convert("STRING");
  }
};

X11Pasteboard::X11Pasteboard() : s_(std::make_shared<State>()) {
  s_->x = openX11();
  if (!s_->x || ::pipe(s_->wake) != 0) {
    closeX11(s_->x);
    s_->x = nullptr;
    return;
  }
  ::Display* x = s_->x;
  s_->own = XCreateSimpleWindow(x, DefaultRootWindow(x), -10, -10, 1, 1, 0, 0, 0);
  XSelectInput(x, s_->own, PropertyChangeMask);
  int error = 0;
  if (XFixesQueryExtension(x, &s_->fixesEvent, &error))
    XFixesSelectSelectionInput(x, s_->own, s_->atom("CLIPBOARD"), XFixesSetSelectionOwnerNotifyMask);
  XFlush(x);
  s_->thread = std::thread([state = s_] { state->loop(); });
}

X11Pasteboard::~X11Pasteboard() {
  if (!s_->x) return;
  s_->stop = true;
  char byte = 0;
  [[maybe_unused]] auto written = ::write(s_->wake[1], &byte, 1);
  s_->thread.join();
  XDestroyWindow(s_->x, s_->own);
  closeX11(s_->x);
  ::close(s_->wake[0]);
  ::close(s_->wake[1]);
}

void X11Pasteboard::clear() {
  // Owning the selection with nothing in it empties the clipboard for everyone.
  s_->run<bool>([s = s_.get()] { return s->own_({}); });
}

std::optional<std::string> X11Pasteboard::readText() {
  auto text = s_->run<std::optional<std::string>>([s = s_.get()] { return s->read(); });
  return text ? *text : std::nullopt;
}

bool X11Pasteboard::writeText(const std::string& text) {
  std::vector<std::uint8_t> bytes(text.begin(), text.end());
  std::map<std::string, std::vector<std::uint8_t>> data;
  for (const char* target : textTargets) data[target] = bytes;
  return s_->run<bool>([s = s_.get(), data = std::move(data)]() mutable { return s->own_(std::move(data)); })
      .value_or(false);
}

bool X11Pasteboard::writeImage(ImageFormat format, const std::vector<std::uint8_t>& bytes) {
  std::map<std::string, std::vector<std::uint8_t>> data{
      {format == ImageFormat::png ? "image/png" : "image/tiff", bytes}};
  return s_->run<bool>([s = s_.get(), data = std::move(data)]() mutable { return s->own_(std::move(data)); })
      .value_or(false);
}

std::int64_t X11Pasteboard::changeCount() { return s_->count; }

}  // namespace glimmerstrand::platform::linux_desktop
