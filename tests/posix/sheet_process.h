// The sheet process (`chronwarden applet --stdio`) as its front end sees it: started with pipes,
// fed JSON lines, its output lines read by a thread and folded into the state of every window's
// controls, as a front end draws them.
#pragma once
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

class SheetProcess {
 public:
  using json = nlohmann::json;

  explicit SheetProcess(std::vector<std::string> args) {
    int in[2], out[2];
    if (::pipe(in) != 0 || ::pipe(out) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(in[0], 0);
      ::dup2(out[1], 1);
      ::close(in[1]);
      ::close(out[0]);
      std::vector<char*> argv{const_cast<char*>(CHRONWARDEN_CLI_PATH)};
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execv(CHRONWARDEN_CLI_PATH, argv.data());
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    to_ = in[1];
    from_ = out[0];
    reader_ = std::thread([this] { Read(); });
  }
  ~SheetProcess() {
    CloseInput();
    if (pid_ > 0 && !exited_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (reader_.joinable()) reader_.join();
    if (from_ >= 0) ::close(from_);
  }

  bool Send(const json& message) {
    const std::string line = message.dump() + "\n";
    return to_ >= 0 && ::write(to_, line.data(), line.size()) == ssize_t(line.size());
  }
  bool SendRaw(const std::string& line) { return to_ >= 0 && ::write(to_, line.data(), line.size()) == ssize_t(line.size()); }
  void CloseInput() {
    if (to_ >= 0) ::close(to_);
    to_ = -1;
  }

  // Waits (at most seconds) for a message after the cursor that pred accepts; moves the cursor past
  // it. A null message when none came.
  json Next(const std::function<bool(const json&)>& pred, int seconds = 15) {
    std::unique_lock lock(m_);
    json found;
    cv_.wait_for(lock, std::chrono::seconds(seconds), [&] {
      for (; cursor_ < messages_.size(); ++cursor_)
        if (pred(messages_[cursor_])) {
          found = messages_[cursor_++];
          return true;
        }
      return ended_;
    });
    return found;
  }
  json NextEvent(const std::string& event, int seconds = 15) {
    return Next([&](const json& m) { return m.value("event", "") == event; }, seconds);
  }
  // Waits until control id of window shows a state that pred accepts.
  bool WaitControl(int window, int id, const std::function<bool(const json&)>& pred, int seconds = 15) {
    std::unique_lock lock(m_);
    return cv_.wait_for(lock, std::chrono::seconds(seconds), [&] { return pred(ControlLocked(window, id)); });
  }
  json Control(int window, int id) {
    std::lock_guard lock(m_);
    return ControlLocked(window, id);
  }
  json Sheet() {
    std::lock_guard lock(m_);
    return sheet_state_;
  }
  std::vector<json> Messages() {
    std::lock_guard lock(m_);
    return messages_;
  }
  // The exit code, or -1 when the process did not end within ms.
  int WaitExit(int ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        exited_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      if (std::chrono::steady_clock::now() > end) return -1;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  pid_t Pid() const { return pid_; }

 private:
  json ControlLocked(int window, int id) {
    auto w = controls_.find(window);
    if (w == controls_.end()) return json::object();
    auto c = w->second.find(std::to_string(id));
    return c == w->second.end() ? json::object() : c->second;
  }
  void Read() {
    std::string pending;
    char buf[65536];
    for (;;) {
      const ssize_t n = ::read(from_, buf, sizeof buf);
      if (n <= 0) break;
      pending.append(buf, std::size_t(n));
      std::size_t nl;
      while ((nl = pending.find('\n')) != std::string::npos) {
        json m = json::parse(pending.substr(0, nl), nullptr, false);
        pending.erase(0, nl + 1);
        std::lock_guard lock(m_);
        if (m.value("event", "") == "state")
          for (auto& [key, fields] : m["controls"].items()) controls_[m["window"].get<int>()][key].update(fields);
        if (m.value("event", "") == "sheet_state") sheet_state_ = m;
        messages_.push_back(std::move(m));
        cv_.notify_all();
      }
    }
    std::lock_guard lock(m_);
    ended_ = true;
    cv_.notify_all();
  }

  pid_t pid_ = -1;
  int to_ = -1, from_ = -1;
  bool exited_ = false;
  std::thread reader_;
  std::mutex m_;
  std::condition_variable cv_;
  std::vector<json> messages_;
  std::size_t cursor_ = 0;
  bool ended_ = false;
  std::map<int, std::map<std::string, json>> controls_;
  json sheet_state_;
};
