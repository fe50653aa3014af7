#include "platform/quiet_terminal.h"

#include "base/status.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

namespace softkey
{

bool isTerminal(int descriptor)
{
    return isatty(descriptor) != 0;
}

bool readByte(int descriptor, unsigned char& byte)
{
    const auto count = read(descriptor, &byte, 1);
    if (count < 0)
        throw Refusal(SoftkeyStatus::PinRequired, "the PIN cannot be read");
    return count > 0;
}

/// Signals that would end the program wait until the echo is back.
struct QuietTerminal::State {
    int descriptor = -1;
    int signals = -1;
    termios before{};
    sigset_t previousMask{};
};

QuietTerminal::QuietTerminal() : state_(std::make_unique<State>())
{
    state_->descriptor = open("/dev/tty", O_RDWR | O_CLOEXEC);
    if (state_->descriptor < 0 || tcgetattr(state_->descriptor, &state_->before) != 0)
        throw Refusal(SoftkeyStatus::PinRequired, "there is no terminal to ask on");
    sigset_t ending;
    sigemptyset(&ending);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaddset(&ending, signal);
    pthread_sigmask(SIG_BLOCK, &ending, &state_->previousMask);
    state_->signals = signalfd(-1, &ending, SFD_CLOEXEC);
    termios quiet = state_->before;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(state_->descriptor, TCSAFLUSH, &quiet);
}

QuietTerminal::~QuietTerminal()
{
    tcsetattr(state_->descriptor, TCSAFLUSH, &state_->before);
    close(state_->descriptor);
    close(state_->signals);
    pthread_sigmask(SIG_SETMASK, &state_->previousMask, nullptr);
}

void QuietTerminal::say(std::string_view text) const
{
    [[maybe_unused]] const auto n = write(state_->descriptor, text.data(), text.size());
}

bool QuietTerminal::read(unsigned char& byte) const
{
    std::array<pollfd, 2> awaited{{{state_->descriptor, POLLIN, 0}, {state_->signals, POLLIN, 0}}};
    while (poll(awaited.data(), awaited.size(), -1) < 0 && errno == EINTR) {
    }
    if (awaited[1].revents != 0)
        throw Refusal(SoftkeyStatus::PinRequired, "interrupted");
    const ssize_t count = ::read(state_->descriptor, &byte, 1);
    if (count < 0)
        throw Refusal(SoftkeyStatus::PinRequired, "the PIN cannot be read");
    return count > 0;
}

} // namespace softkey
