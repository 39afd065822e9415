// `cmake --install` into a fresh prefix, checked as the desktop and a user see it: the
// launcher and metainfo pass the freedesktop and AppStream validators and name the
// window's identity, the icon is there at every size, the engine and the libraries it
// loads sit in libexec/vorn, and the installed app starts and finds its engine there.
#include "ApplicationIdentity.h"
#include "RunningApp.h"
#include "TestHome.h"

#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QProcess>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QtTest>

#include <csignal>

namespace {

struct Run {
    int exitCode = -1;
    QByteArray output;
};

Run run(const QString &program, const QStringList &arguments, int timeoutMs = 120000)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    Run result;
    if (!process.waitForStarted()) {
        result.output = program.toUtf8() + " could not be started; scripts/bootstrap installs it";
        return result;
    }
    process.waitForFinished(timeoutMs);
    result.output = process.readAll();
    if (process.exitStatus() == QProcess::NormalExit)
        result.exitCode = process.exitCode();
    return result;
}

// The [Desktop Entry] group of a launcher, key by key.
QMap<QString, QString> desktopEntry(const QString &path)
{
    QMap<QString, QString> entry;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return entry;
    bool inGroup = false;
    for (const QByteArray &raw : file.readAll().split('\n')) {
        const QString line = QString::fromUtf8(raw).trimmed();
        if (line.startsWith(QLatin1Char('[')))
            inGroup = line == QStringLiteral("[Desktop Entry]");
        else if (inGroup && line.contains(QLatin1Char('=')) && !line.startsWith(QLatin1Char('#')))
            entry.insert(line.section(QLatin1Char('='), 0, 0), line.section(QLatin1Char('='), 1));
    }
    return entry;
}

} // namespace

class InstallTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_root;
    QString m_prefix;
    const QString m_id = QStringLiteral(VORN_APP_ID);

    QString installed(const QString &relative) const { return QDir(m_prefix).filePath(relative); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_root.isValid());
        // A prefix with a space, as a user's own folder may have.
        m_prefix = QDir(m_root.path()).filePath(QStringLiteral("my apps"));
        const Run install = run(
            QStringLiteral(VORN_CMAKE_COMMAND),
            {QStringLiteral("--install"), QStringLiteral(VORN_BUILD_DIR), QStringLiteral("--prefix"), m_prefix});
        QVERIFY2(install.exitCode == 0, install.output.constData());
        ApplicationIdentity::apply();
    }

    void installsTheAppAndTheEngineWithItsLibraries()
    {
        QVERIFY(QFileInfo(installed("bin/vorn")).isExecutable());
        const QString engineFolder = installed("libexec/vorn");
        QVERIFY(QFileInfo(QDir(engineFolder).filePath("vorn-engine")).isExecutable());
        // Nothing of the engine's on PATH.
        QCOMPARE(QDir(installed("bin")).entryList(QDir::Files | QDir::NoDotAndDotDot), QStringList{"vorn"});

        // Every library the build put beside the engine, links kept as links.
        const QDir built(QStringLiteral(VORN_BUILT_BIN_DIR));
        const QStringList libraries = built.entryList({"*.so", "*.so.*"}, QDir::Files | QDir::System);
        for (const QString &library : libraries) {
            const QFileInfo source(built.filePath(library));
            const QFileInfo copy(QDir(engineFolder).filePath(library));
            QVERIFY2(copy.exists(), qPrintable(library));
            QCOMPARE(copy.isSymLink(), source.isSymLink());
            if (source.isSymLink())
                QCOMPARE(copy.symLinkTarget(),
                         QDir(engineFolder).filePath(QFileInfo(source.symLinkTarget()).fileName()));
        }
    }

    void theLauncherIsValidAndMatchesTheWindow()
    {
        const QString path = installed("share/applications/" + m_id + ".desktop");
        QVERIFY(QFileInfo::exists(path));
        const Run validate = run(QStringLiteral("desktop-file-validate"), {path});
        QVERIFY2(validate.exitCode == 0, validate.output.constData());
        QVERIFY2(!validate.output.contains("error"), validate.output.constData());

        const QMap<QString, QString> entry = desktopEntry(path);
        QCOMPARE(entry.value("Type"), QStringLiteral("Application"));
        QCOMPARE(entry.value("Name"), QStringLiteral("Vorn"));
        // The full installed path, quoted for the space in it.
        QCOMPARE(entry.value("Exec"), QLatin1Char('"') + installed("bin/vorn") + QLatin1Char('"'));
        QCOMPARE(entry.value("TryExec"), installed("bin/vorn"));
        QCOMPARE(entry.value("Icon"), m_id);
        const QStringList categories = entry.value("Categories").split(QLatin1Char(';'), Qt::SkipEmptyParts);
        QVERIFY(categories.contains("Chat"));
        QVERIFY(categories.contains("Utility") || categories.contains("Office"));
        // The window's class (its application name) and the desktop file it reports.
        QCOMPARE(entry.value("StartupWMClass"), QCoreApplication::applicationName());
        QCOMPARE(QGuiApplication::desktopFileName() + QStringLiteral(".desktop"), QFileInfo(path).fileName());
    }

    void theMetainfoIsValidAndDescribesThisRelease()
    {
        const QString path = installed("share/metainfo/" + m_id + ".metainfo.xml");
        QVERIFY(QFileInfo::exists(path));
        const Run validate = run(QStringLiteral("appstreamcli"),
                                 {QStringLiteral("validate"), QStringLiteral("--no-net"), path});
        QVERIFY2(validate.exitCode == 0, validate.output.constData());

        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QXmlStreamReader xml(&file);
        QString id;
        QString launchable;
        QStringList releases;
        QStringList screenshots;
        bool description = false;
        while (!xml.atEnd()) {
            if (xml.readNext() != QXmlStreamReader::StartElement)
                continue;
            if (xml.name() == QStringLiteral("id") && id.isEmpty())
                id = xml.readElementText();
            else if (xml.name() == QStringLiteral("launchable"))
                launchable = xml.readElementText();
            else if (xml.name() == QStringLiteral("release"))
                releases.append(xml.attributes().value("version").toString());
            else if (xml.name() == QStringLiteral("image"))
                screenshots.append(xml.readElementText());
            else if (xml.name() == QStringLiteral("description") && releases.isEmpty())
                description = true;
        }
        QVERIFY2(!xml.hasError(), qPrintable(xml.errorString() + QStringLiteral(" at line %1").arg(xml.lineNumber())));
        QCOMPARE(id, m_id);
        QCOMPARE(launchable, m_id + QStringLiteral(".desktop"));
        QVERIFY(description);
        // The newest release is the version the app reports.
        QVERIFY(!releases.isEmpty());
        QCOMPARE(releases.first(), QCoreApplication::applicationVersion());
        // Each screenshot is one the view tests take.
        QVERIFY(!screenshots.isEmpty());
        for (const QString &screenshot : screenshots) {
            const QString name = screenshot.section(QLatin1Char('/'), -1);
            QVERIFY2(QFileInfo::exists(QStringLiteral(VORN_SOURCE_DIR "/docs/screenshots/") + name),
                     qPrintable(screenshot));
        }
    }

    void theIconIsInTheHicolorThemeAtEverySize()
    {
        for (const int size : {16, 22, 24, 32, 48, 64, 128, 256, 512}) {
            const QString path = installed(QStringLiteral("share/icons/hicolor/%1x%1/apps/").arg(size) + m_id + ".png");
            QImage icon(path);
            QVERIFY2(!icon.isNull(), qPrintable(path));
            QCOMPARE(icon.size(), QSize(size, size));
            // The tile fills the middle, the rounded corners stay clear.
            QCOMPARE(icon.pixelColor(size / 2, size / 8).alpha(), 255);
            QCOMPARE(icon.pixelColor(0, 0).alpha(), 0);
        }
    }

    void theInstalledAppStartsItsEngine()
    {
        TestHome home;
        RunningApp app(installed("bin/vorn"));
        QVERIFY(app.process().waitForStarted());
        QTRY_VERIFY2_WITH_TIMEOUT(app.engineReady(), app.report().constData(), 20000);
        const QList<qint64> engines = app.engines();
        QCOMPARE(engines.size(), 1);
        QCOMPARE(QFileInfo(ProcessTree::executableOf(engines.first())).canonicalFilePath(),
                 QFileInfo(installed("libexec/vorn/vorn-engine")).canonicalFilePath());
        QVERIFY(app.quitWith(SIGTERM));
    }
};

QTEST_MAIN(InstallTest)
#include "InstallTest.moc"
