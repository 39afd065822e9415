#pragma once

#include <QObject>

class QSocketNotifier;

// Turns the requests to end the process that a session logout, `kill` or a terminal
// send (SIGTERM, SIGINT, SIGHUP) into a Qt signal delivered by the event loop, so the
// app can quit the way its Quit menu item does. The signal handler itself only writes
// the signal's number into a socket; everything else happens in the event loop.
// One instance per process; it does nothing where these signals do not exist.
class QuitSignals : public QObject {
    Q_OBJECT
public:
    explicit QuitSignals(QObject *parent = nullptr);
    ~QuitSignals() override;

    // Whether the handlers are in place.
    bool watching() const { return m_notifier != nullptr; }

signals:
    void quitRequested(int signalNumber);

private:
    void readPending();

    QSocketNotifier *m_notifier = nullptr;
};
