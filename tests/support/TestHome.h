#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QTemporaryDir>

// A throw-away home folder: HOME and the XDG folders point into it while it lives,
// so nothing a test does reaches the real user's files.
class TestHome {
public:
    TestHome();
    ~TestHome();

    QString path() const { return m_folder.path(); }
    QString dataFolder() const;   // where the app keeps its history
    QString modelsFolder() const; // ~/.vorn/models
    QString historyFile() const;

    // Points the settings (QSettings) of this process at a throw-away folder of its own;
    // it stays the same for the whole process, so settings outlive one home.
    static void isolateSettings();

    // The permission bits of a file or folder, as chmod shows them (0700, 0600).
    static int posixMode(const QString &path);

private:
    QTemporaryDir m_folder;
    QMap<QByteArray, QByteArray> m_saved;
};
