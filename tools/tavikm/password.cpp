// SPDX-License-Identifier: Apache-2.0
// Password input: files, standard input and an echo-less terminal prompt.
#include "password.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "cli.h"
#include "common/scopers.h"
#include "input_files.h"

namespace tavikm_tool {
namespace {

// Reads one line from `fd` a byte at a time, so nothing past the newline is consumed and a
// later read of the same descriptor gets the next line. Returns false at end of input with
// nothing read. A trailing "\r" is dropped with the newline.
bool ReadLine(int fd, Password* out, const std::string& source) {
  size_t length = 0;
  bool any = false;
  for (;;) {
    char c;
    ssize_t n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw ToolError(kExitFailure, "cannot read " + source + ": " + strerror(errno));
    if (n == 0 || c == '\n') {
      any = any || n == 1;
      break;
    }
    any = true;
    if (length + 1 >= Password::capacity()) {
      throw InputError("the password in " + source + " is longer than " +
                       std::to_string(Password::capacity() - 1) + " bytes");
    }
    out->data()[length++] = static_cast<uint8_t>(c);
  }
  if (length > 0 && out->data()[length - 1] == '\r') out->data()[--length] = 0;
  out->set_size(length);
  return any;
}

Password FromFile(const std::string& file) {
  Password password;
  if (file == "-") {
    if (!ReadLine(STDIN_FILENO, &password, "standard input")) {
      throw InputError("standard input holds no password");
    }
    return password;
  }
  tavikm::ScopedFd fd(OpenInput(file, "password file"));
  const bool any = ReadLine(fd.get(), &password, file);
  fd.reset();
  if (!any) throw InputError("password file " + file + " is empty");
  return password;
}

struct termios g_saved_termios;
struct termios g_quiet_termios;
volatile sig_atomic_t g_echo_off = 0;
// The prompt, shown again after the tool was stopped and continued.
char g_prompt[512];
size_t g_prompt_length = 0;

// Signals that end the tool at the prompt; SIGTSTP stops it and SIGCONT brings it back.
constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGQUIT, SIGHUP};

// A signal during the prompt must not leave the terminal without echo. Everything here is
// async-signal-safe.
void RestoreEchoAndDie(int sig) {
  if (g_echo_off) tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_saved_termios);
  signal(sig, SIG_DFL);
  raise(sig);
}

// Ctrl-Z: the shell gets its terminal back with echo on, and what was typed so far is dropped
// rather than left for the shell to read.
void RestoreEchoAndStop(int) {
  int saved_errno = errno;
  if (g_echo_off) tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_saved_termios);
  signal(SIGTSTP, SIG_DFL);
  sigset_t tstp;
  sigemptyset(&tstp);
  sigaddset(&tstp, SIGTSTP);
  sigprocmask(SIG_UNBLOCK, &tstp, nullptr);
  raise(SIGTSTP);  // stops here until SIGCONT
  struct sigaction again = {};
  again.sa_handler = RestoreEchoAndStop;
  sigaction(SIGTSTP, &again, nullptr);
  errno = saved_errno;
}

// Continued (after Ctrl-Z, or a SIGSTOP): whatever the shell did to the terminal meanwhile, echo
// goes off again before anything more is typed, and the prompt says so.
void QuietAgain(int) {
  int saved_errno = errno;
  if (g_echo_off) {
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_quiet_termios);
    ssize_t ignored = write(STDERR_FILENO, g_prompt, g_prompt_length);
    (void)ignored;
  }
  errno = saved_errno;
}

Password Prompt(const std::string& prompt) {
  if (!isatty(STDIN_FILENO)) {
    throw UsageError(
        "no terminal to ask for the password: give --password-file FILE (- for standard input)");
  }
  if (tcgetattr(STDIN_FILENO, &g_saved_termios) != 0) {
    throw ToolError(kExitFailure, std::string("cannot control the terminal: ") + strerror(errno));
  }
  g_quiet_termios = g_saved_termios;
  g_quiet_termios.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  g_quiet_termios.c_lflag |= ECHONL;
  std::string shown = "\n" + prompt;
  g_prompt_length = std::min(shown.size(), sizeof(g_prompt));
  memcpy(g_prompt, shown.data(), g_prompt_length);
  struct sigaction action = {};
  action.sa_handler = RestoreEchoAndDie;
  struct sigaction old_ending[std::size(kEndingSignals)], old_tstp, old_cont;
  for (size_t i = 0; i < std::size(kEndingSignals); ++i) {
    sigaction(kEndingSignals[i], &action, &old_ending[i]);
  }
  struct sigaction stop = {};
  stop.sa_handler = RestoreEchoAndStop;
  sigaction(SIGTSTP, &stop, &old_tstp);
  struct sigaction cont = {};
  cont.sa_handler = QuietAgain;
  cont.sa_flags = SA_RESTART;
  sigaction(SIGCONT, &cont, &old_cont);
  // Echo goes off (and earlier typing is dropped) before the prompt shows, so nothing typed
  // after it is lost.
  g_echo_off = 1;
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_quiet_termios);
  fprintf(stderr, "%s", prompt.c_str());
  fflush(stderr);
  Password password;
  bool any = false;
  std::optional<ToolError> error;
  try {
    any = ReadLine(STDIN_FILENO, &password, "the terminal");
  } catch (const ToolError& e) {
    error = e;
  }
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_saved_termios);
  g_echo_off = 0;
  for (size_t i = 0; i < std::size(kEndingSignals); ++i) {
    sigaction(kEndingSignals[i], &old_ending[i], nullptr);
  }
  sigaction(SIGTSTP, &old_tstp, nullptr);
  sigaction(SIGCONT, &old_cont, nullptr);
  if (error) throw *error;
  if (!any) throw InputError("no password given");
  return password;
}

}  // namespace

Password ReadPassword(const std::optional<std::string>& file, const std::string& prompt) {
  return file ? FromFile(*file) : Prompt(prompt);
}

Password ReadNewPassword(const std::optional<std::string>& file, const std::string& prompt) {
  if (file) return FromFile(*file);
  Password first = Prompt(prompt);
  Password second = Prompt("Repeat the new password: ");
  if (first != second) throw InputError("the two passwords do not match");
  return first;
}

}  // namespace tavikm_tool
