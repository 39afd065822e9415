#include "FakeEngine.h"
#include "StoreFixture.h"
#include "ScriptedFileChooser.h"
#include "TestHome.h"
#include "engine/EngineStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtTest>

#include <fcntl.h>
#include <unistd.h>
#ifdef Q_OS_LINUX
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif

namespace {

// Keeps entries from being added to or removed from a folder while it lives: by its
// permissions, or, for the superuser whom permissions do not hold back, by the file
// system's immutable flag.
class FrozenFolder {
public:
    explicit FrozenFolder(const QString &folder) : m_folder(folder)
    {
        if (::geteuid() != 0) {
            m_byPermissions = QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner);
            m_holds = m_byPermissions;
            return;
        }
#ifdef Q_OS_LINUX
        m_descriptor = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY);
        int flags = 0;
        if (m_descriptor >= 0 && ::ioctl(m_descriptor, FS_IOC_GETFLAGS, &flags) == 0) {
            flags |= FS_IMMUTABLE_FL;
            m_holds = ::ioctl(m_descriptor, FS_IOC_SETFLAGS, &flags) == 0;
        }
#endif
    }

    ~FrozenFolder()
    {
        if (m_byPermissions)
            QFile::setPermissions(m_folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
#ifdef Q_OS_LINUX
        if (m_descriptor >= 0) {
            int flags = 0;
            if (m_holds && ::ioctl(m_descriptor, FS_IOC_GETFLAGS, &flags) == 0) {
                flags &= ~FS_IMMUTABLE_FL;
                ::ioctl(m_descriptor, FS_IOC_SETFLAGS, &flags);
            }
            ::close(m_descriptor);
        }
#endif
    }

    FrozenFolder(const FrozenFolder &) = delete;
    FrozenFolder &operator=(const FrozenFolder &) = delete;

    bool holds() const { return m_holds; }

private:
    QString m_folder;
    bool m_byPermissions = false;
    bool m_holds = false;
    int m_descriptor = -1;
};

QString duplicateMessage(const QString &name)
{
    return QStringLiteral("A model named ") + name + QStringLiteral(" is already in your library.");
}

} // namespace

// importModels: links to the user's own files in a temporary models folder.
class ModelImportTest : public QObject {
    Q_OBJECT

private:
    struct Setup : StoreFixture {
        Setup() { QDir().mkpath(home.modelsFolder()); }

        QString models(const QString &name) const { return QDir(home.modelsFolder()).filePath(name); }

        // A file of the user's, outside the models folder.
        QString userFile(const QString &folder, const QString &name, const QByteArray &bytes = "GGUF")
        {
            return writeFile(folder + QLatin1Char('/') + name, bytes);
        }
    };

    static void roundTrip(EngineStore &store)
    {
        bool answered = false;
        store.refresh([&answered](bool) { answered = true; });
        QTRY_VERIFY(answered);
    }

    static void verifyLink(const QString &link, const QString &source)
    {
        const QFileInfo info(link);
        QVERIFY2(info.isSymLink(), qPrintable(link));
        QCOMPARE(info.symLinkTarget(), source);
    }

private slots:
    void importLinksTheUserFiles()
    {
        Setup setup;
        const QString first = setup.userFile("Documents", "first.gguf", "first bytes");
        const QString second = setup.userFile("Downloads", "Second Model.GGUF", "second bytes");
        setup.chooser->openAnswers.append({first, second});

        setup.store.importModels();
        QCOMPARE(setup.chooser->openRequests.size(), 1);
        QCOMPARE(setup.chooser->openRequests.first().kind, FileChooser::Kind::Models);
        QVERIFY(setup.chooser->openRequests.first().multiple);

        verifyLink(setup.models("first.gguf"), first);
        verifyLink(setup.models("Second Model.GGUF"), second);
        QCOMPARE(QDir(setup.home.modelsFolder()).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size(), 2);
        // Nothing copied or moved: the sources stay where they were, as plain files.
        QVERIFY(QFileInfo(first).isFile() && !QFileInfo(first).isSymLink());
        QVERIFY(QFileInfo(second).isFile() && !QFileInfo(second).isSymLink());
        QFile throughLink(setup.models("first.gguf"));
        QVERIFY(throughLink.open(QIODevice::ReadOnly));
        QCOMPARE(throughLink.readAll(), QByteArray("first bytes"));

        QVERIFY(!setup.store.error());
        QTRY_COMPARE(setup.engine.countOf("/api/state"), 1);
        QTRY_VERIFY(setup.store.hasState());
    }

    void cancelledChooserChangesNothing()
    {
        Setup setup;
        setup.store.setError(QStringLiteral("Earlier problem"));
        setup.chooser->openAnswers.append(QStringList());

        setup.store.importModels();
        QCOMPARE(setup.chooser->openRequests.size(), 1);
        QCOMPARE(setup.store.error(), std::optional<QString>(QStringLiteral("Earlier problem")));
        QVERIFY(QDir(setup.home.modelsFolder()).isEmpty(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot));

        roundTrip(setup.store);
        QCOMPARE(setup.engine.countOf("/api/state"), 1);
    }

    void fileInsideModelsFolderIsSkippedButRefreshes()
    {
        Setup setup;
        const QString own = setup.models("own.gguf");
        {
            QFile file(own);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("own bytes");
        }
        // Also when the path reaches the folder in a roundabout way.
        const QString roundabout = setup.home.modelsFolder() + QStringLiteral("/../models/./own.gguf");
        setup.chooser->openAnswers.append({own, roundabout});

        setup.store.importModels();
        QVERIFY(!setup.store.error());
        const QFileInfo info(own);
        QVERIFY(info.isFile());
        QVERIFY(!info.isSymLink());
        QFile file(own);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("own bytes"));
        QTRY_COMPARE(setup.engine.countOf("/api/state"), 1);
    }

    void nameOfLiveLinkIsRefused()
    {
        Setup setup;
        const QString original = setup.userFile("Documents", "m.gguf");
        const QString other = setup.userFile("Elsewhere", "m.gguf");
        setup.chooser->openAnswers.append({original});
        setup.store.importModels();
        QVERIFY(!setup.store.error());
        QTRY_COMPARE(setup.engine.countOf("/api/state"), 1);

        setup.chooser->openAnswers.append({other});
        setup.store.importModels();
        QCOMPARE(setup.store.error(), std::optional<QString>(duplicateMessage("m.gguf")));
        verifyLink(setup.models("m.gguf"), original);

        roundTrip(setup.store);
        QCOMPARE(setup.engine.countOf("/api/state"), 2);
    }

    void nameOfRealFileIsRefused()
    {
        Setup setup;
        {
            QFile file(setup.models("m.gguf"));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("already here");
        }
        setup.chooser->openAnswers.append({setup.userFile("Documents", "m.gguf")});

        setup.store.importModels();
        QCOMPARE(setup.store.error(), std::optional<QString>(duplicateMessage("m.gguf")));
        QVERIFY(!QFileInfo(setup.models("m.gguf")).isSymLink());
        QFile file(setup.models("m.gguf"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("already here"));

        roundTrip(setup.store);
        QCOMPARE(setup.engine.countOf("/api/state"), 1);
    }

    void deletedSourceLeavesDeadLinkThatNextImportReplaces()
    {
        Setup setup;
        const QString source = setup.userFile("Documents", "m.gguf");
        setup.chooser->openAnswers.append({source});
        setup.store.importModels();
        verifyLink(setup.models("m.gguf"), source);

        QVERIFY(QFile::remove(source));
        const QFileInfo dead(setup.models("m.gguf"));
        QVERIFY(dead.isSymLink());
        QVERIFY(!dead.exists());
        QCOMPARE(dead.symLinkTarget(), source);

        const QString replacement = setup.userFile("Elsewhere", "m.gguf");
        setup.chooser->openAnswers.append({replacement});
        setup.store.importModels();
        QVERIFY(!setup.store.error());
        verifyLink(setup.models("m.gguf"), replacement);
        QVERIFY(QFileInfo(setup.models("m.gguf")).exists());
        QTRY_COMPARE(setup.engine.countOf("/api/state"), 2);
    }

    void linkWhoseSourceCameBackCountsAgain()
    {
        Setup setup;
        const QString source = setup.userFile("Documents", "m.gguf", "version one");
        setup.chooser->openAnswers.append({source});
        setup.store.importModels();
        QVERIFY(QFile::remove(source));
        QVERIFY(!QFileInfo::exists(setup.models("m.gguf")));

        // The same file put back makes the old link live again, so it is in the library.
        setup.userFile("Documents", "m.gguf", "version two");
        setup.chooser->openAnswers.append({source});
        setup.store.importModels();
        QCOMPARE(setup.store.error(), std::optional<QString>(duplicateMessage("m.gguf")));
        verifyLink(setup.models("m.gguf"), source);
        QFile file(setup.models("m.gguf"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("version two"));
    }

    void threeFilesWithDuplicateInTheMiddle()
    {
        Setup setup;
        {
            QFile file(setup.models("b.gguf"));
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
        const QString a = setup.userFile("Documents", "a.gguf");
        const QString b = setup.userFile("Documents", "b.gguf");
        const QString c = setup.userFile("Documents", "c.gguf");
        setup.chooser->openAnswers.append({a, b, c});

        setup.store.importModels();
        QCOMPARE(setup.store.error(), std::optional<QString>(duplicateMessage("b.gguf")));
        // The first stays linked; nothing is rolled back and the third is never reached.
        verifyLink(setup.models("a.gguf"), a);
        QVERIFY(!QFileInfo(setup.models("b.gguf")).isSymLink());
        QVERIFY(!QFileInfo(setup.models("c.gguf")).exists());
        QVERIFY(!QFileInfo(setup.models("c.gguf")).isSymLink());

        roundTrip(setup.store);
        QCOMPARE(setup.engine.countOf("/api/state"), 1);
    }

    void missingModelsFolderFailsWithMessage()
    {
        Setup setup;
        QVERIFY(QDir(setup.home.modelsFolder()).removeRecursively());
        const QString first = setup.userFile("Documents", "a.gguf");
        const QString second = setup.userFile("Documents", "b.gguf");
        setup.chooser->openAnswers.append({first, second});

        setup.store.importModels();
        QVERIFY(setup.store.error());
        QVERIFY2(setup.store.error()->contains(QStringLiteral("a.gguf")), qPrintable(*setup.store.error()));
        QVERIFY(!QFileInfo::exists(setup.home.modelsFolder()));

        roundTrip(setup.store);
        QCOMPARE(setup.engine.countOf("/api/state"), 1);
    }

    void deadLinkThatCannotBeRemovedFailsWithMessage()
    {
        Setup setup;
        const QString source = setup.userFile("Documents", "m.gguf");
        setup.chooser->openAnswers.append({source});
        setup.store.importModels();
        QVERIFY(QFile::remove(source));
        QVERIFY(QFileInfo(setup.models("m.gguf")).isSymLink());
        QVERIFY(!QFileInfo::exists(setup.models("m.gguf")));

        // Another file of that name; the dead link in the way cannot be removed.
        const QString replacement = setup.userFile("Downloads", "m.gguf");
        {
            const FrozenFolder frozen(setup.home.modelsFolder());
            if (!frozen.holds())
                QSKIP("This file system lets this user remove entries from any folder");
            setup.chooser->openAnswers.append({replacement});
            setup.store.importModels();
        }

        const QString message = setup.store.error().value_or(QString());
        const QString expected = QStringLiteral("The old link to \u201Cm.gguf\u201D could not be removed: ");
        QVERIFY2(message.startsWith(expected) && message.endsWith(QLatin1Char('.'))
                     && message.size() > expected.size() + 1, qPrintable(message));
        verifyLink(setup.models("m.gguf"), source);
    }

    void importIgnoresLoadingAndKeepsEarlierError()
    {
        Setup setup;
        setup.store.setLoading(true);
        setup.store.setError(QStringLiteral("Earlier problem"));
        const QString source = setup.userFile("Documents", "m.gguf");
        setup.chooser->openAnswers.append({source});

        setup.store.importModels();
        verifyLink(setup.models("m.gguf"), source);
        QCOMPARE(setup.store.error(), std::optional<QString>(QStringLiteral("Earlier problem")));
        QTRY_COMPARE(setup.engine.countOf("/api/state"), 1);
    }
};

QTEST_MAIN(ModelImportTest)
#include "ModelImportTest.moc"
