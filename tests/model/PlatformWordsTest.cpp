// Every text that names the machine or its tools, in each platform's form, written out.
#include "model/PlatformWords.h"

#include <QDir>
#include <QtTest>

using PlatformWords::Platform;

class PlatformWordsTest : public QObject {
    Q_OBJECT

private slots:
    void macTextsAreTheOriginals()
    {
        QCOMPARE(PlatformWords::readyActivity(Platform::Mac), QStringLiteral("Ready on this Mac"));
        QCOMPARE(PlatformWords::modelsStayLocal(Platform::Mac), QStringLiteral("Your models stay on this Mac."));
        QCOMPARE(PlatformWords::bringModelWelcome(Platform::Mac),
                 QStringLiteral("Bring a model to your Mac.\nKeep your work on your Mac."));
        QCOMPARE(PlatformWords::revealInFileBrowser(Platform::Mac), QStringLiteral("Show in Finder"));
        QCOMPARE(PlatformWords::gpuBadge(Platform::Mac), QStringLiteral("METAL"));
        QCOMPARE(PlatformWords::sendHelp(Platform::Mac), QStringLiteral("Send \u00b7 \u2318 Return"));
        QCOMPARE(PlatformWords::historyFootnote(QStringLiteral("/anywhere/Vorn"), Platform::Mac),
                 QStringLiteral("Use a compatible GGUF model. For images, add its matching projector too. "
                                "Chat history is stored locally in Application Support/Vorn."));
    }

    void otherPlatformsSayComputer_data()
    {
        QTest::addColumn<int>("platform");
        QTest::newRow("Windows") << int(Platform::Windows);
        QTest::newRow("other") << int(Platform::Other);
    }

    void otherPlatformsSayComputer()
    {
        QFETCH(int, platform);
        const auto where = static_cast<Platform>(platform);
        QCOMPARE(PlatformWords::readyActivity(where), QStringLiteral("Ready on this computer"));
        QCOMPARE(PlatformWords::modelsStayLocal(where), QStringLiteral("Your models stay on this computer."));
        QCOMPARE(PlatformWords::bringModelWelcome(where),
                 QStringLiteral("Bring a model to your computer.\nKeep your work on your computer."));
        QCOMPARE(PlatformWords::gpuBadge(where), QStringLiteral("GPU"));
        QCOMPARE(PlatformWords::sendHelp(where), QStringLiteral("Send \u00b7 Ctrl+Return"));
    }

    void theFileBrowserIsNamedPerPlatform()
    {
        QCOMPARE(PlatformWords::revealInFileBrowser(Platform::Windows), QStringLiteral("Show in Explorer"));
        QCOMPARE(PlatformWords::revealInFileBrowser(Platform::Other), QStringLiteral("Show in File Manager"));
    }

    // Elsewhere the footnote names the real data folder, with ~ for the home folder.
    void theFootnoteNamesTheRealFolder()
    {
        const QString lead = QStringLiteral("Use a compatible GGUF model. For images, add its matching projector too. "
                                            "Chat history is stored locally in ");
        const QString home = QDir::homePath();
        QCOMPARE(PlatformWords::historyFootnote(home + QStringLiteral("/.local/share/Vorn"), Platform::Other),
                 lead + QDir::toNativeSeparators(QStringLiteral("~/.local/share/Vorn")) + QLatin1Char('.'));
        // Only a folder inside the home folder is shortened; a name that merely starts
        // like it is not.
        QCOMPARE(PlatformWords::historyFootnote(home + QStringLiteral("extra/Vorn"), Platform::Other),
                 lead + QDir::toNativeSeparators(home + QStringLiteral("extra/Vorn")) + QLatin1Char('.'));
        QCOMPARE(PlatformWords::historyFootnote(QStringLiteral("/srv/data/Vorn"), Platform::Other),
                 lead + QDir::toNativeSeparators(QStringLiteral("/srv/data/Vorn")) + QLatin1Char('.'));
    }

    void theCurrentPlatformIsThisOne()
    {
#if defined(Q_OS_MACOS)
        QCOMPARE(PlatformWords::current(), Platform::Mac);
#elif defined(Q_OS_WIN)
        QCOMPARE(PlatformWords::current(), Platform::Windows);
#else
        QCOMPARE(PlatformWords::current(), Platform::Other);
#endif
    }
};

QTEST_GUILESS_MAIN(PlatformWordsTest)
#include "PlatformWordsTest.moc"
