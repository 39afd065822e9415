#include "HelperChecks.h"
#include "StoreTestCase.h"

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

    bool holds() const
    {
        return m_holds;
    }

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
class ModelImportTest : public StoreTestCase {
    Q_OBJECT

private:
    QString models(const QString &name) { return QDir(home().modelsFolder()).filePath(name); }

    // A file of the user's, outside the models folder.
    QString userFile(const QString &folder, const QString &name, const QByteArray &bytes = "GGUF")
    {
        return setup().writeFile(folder + QLatin1Char('/') + name, bytes);
    }

    static void verifyLink(const QString &link, const QString &source)
    {
        const QFileInfo info(link);
        QVERIFY2(info.isSymLink(), qPrintable(link));
        QCOMPARE(info.symLinkTarget(), source);
    }

private slots:
    void init()
    {
        StoreTestCase::init();
        QVERIFY(QDir().mkpath(home().modelsFolder()));
    }

    void importLinksTheUserFiles()
    {
        const QString first = userFile("Documents", "first.gguf", "first bytes");
        const QString second = userFile("Downloads", "Second Model.GGUF", "second bytes");
        setup().chooser->openAnswers.append({first, second});

        store().importModels();
        QCOMPARE(setup().chooser->openRequests.size(), 1);
        QCOMPARE(setup().chooser->openRequests.first().kind, FileChooser::Kind::Models);
        QVERIFY(setup().chooser->openRequests.first().multiple);

        VERIFY_HELPER(verifyLink(models("first.gguf"), first));
        VERIFY_HELPER(verifyLink(models("Second Model.GGUF"), second));
        QCOMPARE(QDir(home().modelsFolder()).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size(),
                 2);
        // Nothing copied or moved: the sources stay where they were, as plain files.
        QVERIFY(QFileInfo(first).isFile() && !QFileInfo(first).isSymLink());
        QVERIFY(QFileInfo(second).isFile() && !QFileInfo(second).isSymLink());
        QFile throughLink(models("first.gguf"));
        QVERIFY(throughLink.open(QIODevice::ReadOnly));
        QCOMPARE(throughLink.readAll(), QByteArray("first bytes"));

        QVERIFY(!store().error());
        QTRY_COMPARE(engine().countOf("/api/state"), 1);
        QTRY_VERIFY(store().hasState());
    }

    void cancelledChooserChangesNothing()
    {
        store().setError(QStringLiteral("Earlier problem"));
        setup().chooser->openAnswers.append(QStringList());

        store().importModels();
        QCOMPARE(setup().chooser->openRequests.size(), 1);
        QCOMPARE(store().error(), std::optional<QString>(QStringLiteral("Earlier problem")));
        QVERIFY(QDir(home().modelsFolder()).isEmpty(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot));

        QVERIFY(setup().roundTrip());
        QCOMPARE(engine().countOf("/api/state"), 1);
    }

    void fileInsideModelsFolderIsSkippedButRefreshes()
    {
        const QString own = models("own.gguf");
        {
            QFile file(own);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("own bytes");
        }
        // Also when the path reaches the folder in a roundabout way.
        const QString roundabout = home().modelsFolder() + QStringLiteral("/../models/./own.gguf");
        setup().chooser->openAnswers.append({own, roundabout});

        store().importModels();
        QVERIFY(!store().error());
        const QFileInfo info(own);
        QVERIFY(info.isFile());
        QVERIFY(!info.isSymLink());
        QFile file(own);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("own bytes"));
        QTRY_COMPARE(engine().countOf("/api/state"), 1);
    }

    void nameOfLiveLinkIsRefused()
    {
        const QString original = userFile("Documents", "m.gguf");
        const QString other = userFile("Elsewhere", "m.gguf");
        setup().chooser->openAnswers.append({original});
        store().importModels();
        QVERIFY(!store().error());
        QTRY_COMPARE(engine().countOf("/api/state"), 1);

        setup().chooser->openAnswers.append({other});
        store().importModels();
        QCOMPARE(store().error(), std::optional<QString>(duplicateMessage("m.gguf")));
        VERIFY_HELPER(verifyLink(models("m.gguf"), original));

        QVERIFY(setup().roundTrip());
        QCOMPARE(engine().countOf("/api/state"), 2);
    }

    void nameOfRealFileIsRefused()
    {
        {
            QFile file(models("m.gguf"));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("already here");
        }
        setup().chooser->openAnswers.append({userFile("Documents", "m.gguf")});

        store().importModels();
        QCOMPARE(store().error(), std::optional<QString>(duplicateMessage("m.gguf")));
        QVERIFY(!QFileInfo(models("m.gguf")).isSymLink());
        QFile file(models("m.gguf"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("already here"));

        QVERIFY(setup().roundTrip());
        QCOMPARE(engine().countOf("/api/state"), 1);
    }

    void deletedSourceLeavesDeadLinkThatNextImportReplaces()
    {
        const QString source = userFile("Documents", "m.gguf");
        setup().chooser->openAnswers.append({source});
        store().importModels();
        VERIFY_HELPER(verifyLink(models("m.gguf"), source));

        QVERIFY(QFile::remove(source));
        const QFileInfo dead(models("m.gguf"));
        QVERIFY(dead.isSymLink());
        QVERIFY(!dead.exists());
        QCOMPARE(dead.symLinkTarget(), source);

        const QString replacement = userFile("Elsewhere", "m.gguf");
        setup().chooser->openAnswers.append({replacement});
        store().importModels();
        QVERIFY(!store().error());
        VERIFY_HELPER(verifyLink(models("m.gguf"), replacement));
        QVERIFY(QFileInfo(models("m.gguf")).exists());
        QTRY_COMPARE(engine().countOf("/api/state"), 2);
    }

    void linkWhoseSourceCameBackCountsAgain()
    {
        const QString source = userFile("Documents", "m.gguf", "version one");
        setup().chooser->openAnswers.append({source});
        store().importModels();
        QVERIFY(QFile::remove(source));
        QVERIFY(!QFileInfo::exists(models("m.gguf")));

        // The same file put back makes the old link live again, so it is in the library.
        userFile("Documents", "m.gguf", "version two");
        setup().chooser->openAnswers.append({source});
        store().importModels();
        QCOMPARE(store().error(), std::optional<QString>(duplicateMessage("m.gguf")));
        VERIFY_HELPER(verifyLink(models("m.gguf"), source));
        QFile file(models("m.gguf"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("version two"));
    }

    void threeFilesWithDuplicateInTheMiddle()
    {
        {
            QFile file(models("b.gguf"));
            QVERIFY(file.open(QIODevice::WriteOnly));
        }
        const QString a = userFile("Documents", "a.gguf");
        const QString b = userFile("Documents", "b.gguf");
        const QString c = userFile("Documents", "c.gguf");
        setup().chooser->openAnswers.append({a, b, c});

        store().importModels();
        QCOMPARE(store().error(), std::optional<QString>(duplicateMessage("b.gguf")));
        // The first stays linked; nothing is rolled back and the third is never reached.
        VERIFY_HELPER(verifyLink(models("a.gguf"), a));
        QVERIFY(!QFileInfo(models("b.gguf")).isSymLink());
        QVERIFY(!QFileInfo(models("c.gguf")).exists());
        QVERIFY(!QFileInfo(models("c.gguf")).isSymLink());

        QVERIFY(setup().roundTrip());
        QCOMPARE(engine().countOf("/api/state"), 1);
    }

    void missingModelsFolderFailsWithMessage()
    {
        QVERIFY(QDir(home().modelsFolder()).removeRecursively());
        const QString first = userFile("Documents", "a.gguf");
        const QString second = userFile("Documents", "b.gguf");
        setup().chooser->openAnswers.append({first, second});

        store().importModels();
        QVERIFY(store().error());
        QVERIFY2(store().error()->contains(QStringLiteral("a.gguf")), qPrintable(*store().error()));
        QVERIFY(!QFileInfo::exists(home().modelsFolder()));

        QVERIFY(setup().roundTrip());
        QCOMPARE(engine().countOf("/api/state"), 1);
    }

    void deadLinkThatCannotBeRemovedFailsWithMessage()
    {
        const QString source = userFile("Documents", "m.gguf");
        setup().chooser->openAnswers.append({source});
        store().importModels();
        QVERIFY(QFile::remove(source));
        QVERIFY(QFileInfo(models("m.gguf")).isSymLink());
        QVERIFY(!QFileInfo::exists(models("m.gguf")));

        // Another file of that name; the dead link in the way cannot be removed.
        const QString replacement = userFile("Downloads", "m.gguf");
        {
            const FrozenFolder frozen(home().modelsFolder());
            if (!frozen.holds())
                QSKIP("This file system lets this user remove entries from any folder");
            setup().chooser->openAnswers.append({replacement});
            store().importModels();
        }

        const QString message = store().error().value_or(QString());
        const QString expected = QStringLiteral("The old link to \u201Cm.gguf\u201D could not be removed: ");
        QVERIFY2(message.startsWith(expected) && message.endsWith(QLatin1Char('.'))
                     && message.size() > expected.size() + 1,
                 qPrintable(message));
        VERIFY_HELPER(verifyLink(models("m.gguf"), source));
    }

    void importIgnoresLoadingAndKeepsEarlierError()
    {
        store().library().setLoading(true);
        store().setError(QStringLiteral("Earlier problem"));
        const QString source = userFile("Documents", "m.gguf");
        setup().chooser->openAnswers.append({source});

        store().importModels();
        VERIFY_HELPER(verifyLink(models("m.gguf"), source));
        QCOMPARE(store().error(), std::optional<QString>(QStringLiteral("Earlier problem")));
        QTRY_COMPARE(engine().countOf("/api/state"), 1);
    }
};

QTEST_MAIN(ModelImportTest)
#include "ModelImportTest.moc"
