#include "QuitSignals.h"

#include <QSocketNotifier>

#ifdef Q_OS_UNIX
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::array<int, 3> quitSignals{SIGTERM, SIGINT, SIGHUP};

// [0] is written by the handler, [1] read by the event loop.
int socketEnds[2] = {-1, -1};
struct sigaction previousActions[quitSignals.size()];

void handleQuitSignal(int signalNumber)
{
    // Only async-signal-safe calls here.
    const int savedErrno = errno;
    const unsigned char number = static_cast<unsigned char>(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(socketEnds[0], &number, 1);
    errno = savedErrno;
}

bool prepareEnd(int descriptor, bool nonBlocking)
{
    if (::fcntl(descriptor, F_SETFD, FD_CLOEXEC) != 0)
        return false;
    if (!nonBlocking)
        return true;
    const int flags = ::fcntl(descriptor, F_GETFL);
    return flags >= 0 && ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == 0;
}

} // namespace

QuitSignals::QuitSignals(QObject *parent) : QObject(parent)
{
    if (socketEnds[0] >= 0)
        return; // another instance watches already
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, socketEnds) != 0)
        return;
    // The engine and any other child must not inherit the ends; a full socket must
    // never block the handler.
    if (!prepareEnd(socketEnds[0], true) || !prepareEnd(socketEnds[1], true)) {
        ::close(socketEnds[0]);
        ::close(socketEnds[1]);
        socketEnds[0] = socketEnds[1] = -1;
        return;
    }
    m_notifier = new QSocketNotifier(socketEnds[1], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &QuitSignals::readPending);

    struct sigaction action {};
    action.sa_handler = handleQuitSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (std::size_t index = 0; index < quitSignals.size(); ++index)
        ::sigaction(quitSignals[index], &action, &previousActions[index]);
}

QuitSignals::~QuitSignals()
{
    if (!m_notifier)
        return;
    for (std::size_t index = 0; index < quitSignals.size(); ++index)
        ::sigaction(quitSignals[index], &previousActions[index], nullptr);
    delete m_notifier;
    m_notifier = nullptr;
    ::close(socketEnds[0]);
    ::close(socketEnds[1]);
    socketEnds[0] = socketEnds[1] = -1;
}

void QuitSignals::readPending()
{
    unsigned char numbers[16];
    for (;;) {
        const ssize_t count = ::read(socketEnds[1], numbers, sizeof numbers);
        if (count <= 0)
            return;
        for (ssize_t index = 0; index < count; ++index)
            emit quitRequested(numbers[index]);
    }
}

#else

QuitSignals::QuitSignals(QObject *parent) : QObject(parent) {}
QuitSignals::~QuitSignals() = default;
void QuitSignals::readPending() {}

#endif
