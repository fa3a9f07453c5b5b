// A service program for the service tests: runs until SIGTERM, then behaves as its mode says.
//   test_service run MARKER            exits at SIGTERM
//   test_service linger MS MARKER      exits MS milliseconds after SIGTERM
//   test_service hang MARKER           ignores SIGTERM; exits when the file MARKER.quit appears
//   test_service bounce MARKER         at the first SIGTERM stays stop-pending for 300 ms, then runs
//                                      again (it takes back the supervisor's stop mark, as a Windows
//                                      service reports running again); a second SIGTERM stops it
// It writes MARKER.started when it runs and appends a line to MARKER.hup at each SIGHUP.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace {
volatile sig_atomic_t g_term = 0, g_hup = 0;
void OnTerm(int) { g_term = 1; }
void OnHup(int) { g_hup = 1; }

// Removes the supervisor's stop mark (<root>/run/NAME.stop) of the service whose pid file names this process.
void TakeBackStop() {
  const char* root = std::getenv("CHRONWARDEN_ROOT");
  if (!root) return;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(std::string(root) + "/run", ec)) {
    if (e.path().extension() != ".pid") continue;
    long pid = 0;
    std::ifstream(e.path()) >> pid;
    if (pid == getpid()) std::filesystem::remove(std::filesystem::path(e.path()).replace_extension(".stop"), ec);
  }
}
}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  std::string mode = argv[1];
  const std::string marker = argv[argc - 1];
  const long linger_ms = mode == "linger" && argc > 3 ? std::atol(argv[2]) : 0;
  struct sigaction sa {};
  sa.sa_handler = OnTerm;
  sigaction(SIGTERM, &sa, nullptr);
  sa.sa_handler = OnHup;
  sigaction(SIGHUP, &sa, nullptr);
  std::ofstream(marker + ".started") << getpid() << "\n";
  for (;;) {
    usleep(10'000);
    if (g_hup) {
      g_hup = 0;
      std::ofstream(marker + ".hup", std::ios::app) << "hup\n";
    }
    if (access((marker + ".quit").c_str(), F_OK) == 0) return 0;
    if (g_term && mode == "bounce") {
      usleep(300'000);
      TakeBackStop();
      g_term = 0;
      mode = "run";
      continue;
    }
    if (g_term && mode != "hang") {
      usleep(static_cast<useconds_t>(linger_ms * 1000));
      return 0;
    }
  }
}
