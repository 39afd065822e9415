#pragma once

#include <QLockFile>
#include <QObject>
#include <QString>

class QLocalServer;

// One Vorn per history folder: a second start over the same folder asks the running
// app to show its window and ends, instead of starting a second engine and writing the
// same history file. The first start holds a lock file in the folder and listens on a
// local socket named after the folder.
class SingleInstance : public QObject {
    Q_OBJECT
public:
    explicit SingleInstance(const QString &dataFolder, QObject *parent = nullptr);
    ~SingleInstance() override;

    // True when this process is now the one app for the folder; it then answers later
    // starts. False when another process holds the folder.
    bool claim();
    // From a later start: asks the running app to show its window; true once it said
    // it did. activationToken: the desktop's permission to raise a window, which it gave
    // this start (XDG_ACTIVATION_TOKEN), handed on to the running app.
    bool activateRunning(const QByteArray &activationToken = {}, int timeoutMs = 5000);

    // The local socket's name: in the user's runtime folder when there is one, else in
    // the temporary folder, and different for each data folder.
    static QString serverName(const QString &dataFolder);

signals:
    // A later start asked for the window, with the activation token it was given, if any.
    void activationRequested(const QByteArray &activationToken);

private:
    void answer();

    QString m_dataFolder;
    QLockFile m_lock;
    QLocalServer *m_server = nullptr;
};
