#include "FakeEngine.h"
#include "StoreFixture.h"
#include "ScriptedFileChooser.h"
#include "TestHome.h"
#include "engine/EngineStore.h"

#include <QDir>
#include <QFile>
#include <QtTest>

namespace {

constexpr qint64 limitBytes = 31457280;

const QString tooLargeMessage = QStringLiteral("Please choose an image smaller than 30 MB.");

} // namespace

// attachImage: reading the chosen file into a data URL and the engine's pre-encoding.
class AttachmentTest : public QObject {
    Q_OBJECT

private:
    struct Setup : StoreFixture {
        explicit Setup(const QByteArray &state = FakeEngine::stateJson()) : StoreFixture(state)
        {
            engine.route("POST", "/api/encode", FakeResponse::json(200, "{}"));
        }

        QString image(const QString &name, const QByteArray &bytes)
        {
            return writeFile(QStringLiteral("Pictures/") + name, bytes);
        }

        void attach(const QString &path)
        {
            chooser->openAnswers.append({path});
            store.attachImage();
        }
    };

    static void roundTrip(EngineStore &store)
    {
        bool answered = false;
        store.refresh([&answered](bool) { answered = true; });
        QTRY_VERIFY(answered);
    }

    static QString dataURL(const QString &mime, const QByteArray &bytes)
    {
        return QStringLiteral("data:") + mime + QStringLiteral(";base64,") + QString::fromLatin1(bytes.toBase64());
    }

private slots:
    void asksForOneImage()
    {
        Setup setup;
        setup.attach(setup.image("a.png", "png bytes"));
        QCOMPARE(setup.chooser->openRequests.size(), 1);
        QCOMPARE(setup.chooser->openRequests.first().kind, FileChooser::Kind::Images);
        QVERIFY(!setup.chooser->openRequests.first().multiple);
    }

    void fileOfExactlyTheLimitIsAttachedOneByteMoreIsRefused()
    {
        Setup setup;
        QByteArray bytes(limitBytes, '\0');
        for (qsizetype index = 0; index < bytes.size(); index += 4096)
            bytes[index] = char(index / 4096);
        setup.attach(setup.image("exact.png", bytes));
        QVERIFY(!setup.store.error());
        QVERIFY(setup.store.attachment());
        QCOMPARE(*setup.store.attachment(), dataURL("image/png", bytes));

        const QString before = *setup.store.attachment();
        setup.attach(setup.image("larger.png", bytes + 'x'));
        QCOMPARE(setup.store.error(), std::optional<QString>(tooLargeMessage));
        QCOMPARE(setup.store.attachment(), std::optional<QString>(before));
    }

    void tooLargeWithNothingAttachedLeavesNothing()
    {
        Setup setup;
        setup.attach(setup.image("huge.jpg", QByteArray(limitBytes + 1, 'x')));
        QCOMPARE(setup.store.error(), std::optional<QString>(tooLargeMessage));
        QVERIFY(!setup.store.attachment());
    }

    void mimeTypeFromExtension_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("mime");
        QTest::newRow("png") << QStringLiteral("photo.png") << QStringLiteral("image/png");
        QTest::newRow("upper-case png") << QStringLiteral("PHOTO.PNG") << QStringLiteral("image/png");
        QTest::newRow("jpg") << QStringLiteral("photo.jpg") << QStringLiteral("image/jpeg");
        QTest::newRow("jpeg") << QStringLiteral("photo.jpeg") << QStringLiteral("image/jpeg");
        QTest::newRow("tiff") << QStringLiteral("scan.tiff") << QStringLiteral("image/tiff");
        QTest::newRow("tif") << QStringLiteral("scan.tif") << QStringLiteral("image/tiff");
        QTest::newRow("heic") << QStringLiteral("IMG_0001.heic") << QStringLiteral("image/heic");
        QTest::newRow("upper-case heic") << QStringLiteral("IMG_0002.HEIC") << QStringLiteral("image/heic");
        QTest::newRow("heif") << QStringLiteral("still.heif") << QStringLiteral("image/heif");
        QTest::newRow("unknown extension") << QStringLiteral("photo.vornunknown") << QStringLiteral("image/jpeg");
        QTest::newRow("no extension") << QStringLiteral("photo") << QStringLiteral("image/jpeg");
    }

    void mimeTypeFromExtension()
    {
        QFETCH(QString, name);
        QFETCH(QString, mime);
        Setup setup;
        // The bytes are not looked at: PNG bytes in a .jpg file still say image/jpeg.
        const QByteArray bytes("\x89PNG\r\n\x1a\n rest of the file", 25);
        setup.attach(setup.image(name, bytes));
        QCOMPARE(setup.store.attachment(), std::optional<QString>(dataURL(mime, bytes)));
    }

    void attachingTwiceKeepsTheSecond()
    {
        Setup setup;
        setup.attach(setup.image("first.png", "first"));
        setup.attach(setup.image("second.jpg", "second"));
        QCOMPARE(setup.store.attachment(), std::optional<QString>(dataURL("image/jpeg", "second")));
    }

    void cancelChangesNothing()
    {
        Setup setup;
        setup.attach(setup.image("first.png", "first"));
        setup.store.setError(QStringLiteral("Earlier problem"));
        setup.chooser->openAnswers.append(QStringList());
        setup.store.attachImage();
        QCOMPARE(setup.store.attachment(), std::optional<QString>(dataURL("image/png", "first")));
        QCOMPARE(setup.store.error(), std::optional<QString>(QStringLiteral("Earlier problem")));
    }

    void unreadableFileShowsMessageAndKeepsAttachment()
    {
        Setup setup;
        setup.attach(setup.image("first.png", "first"));

        setup.attach(QDir(setup.home.path()).filePath("Pictures/gone.png"));
        QVERIFY(setup.store.error());
        QVERIFY2(setup.store.error()->contains(QStringLiteral("gone.png")), qPrintable(*setup.store.error()));
        QCOMPARE(setup.store.attachment(), std::optional<QString>(dataURL("image/png", "first")));

        setup.store.clearError();
        setup.attach(QDir(setup.home.path()).filePath("Pictures"));
        QVERIFY(setup.store.error());
        QCOMPARE(setup.store.attachment(), std::optional<QString>(dataURL("image/png", "first")));
    }

    void successKeepsEarlierError()
    {
        Setup setup;
        setup.store.setError(QStringLiteral("Earlier problem"));
        setup.attach(setup.image("a.png", "bytes"));
        QVERIFY(setup.store.attachment());
        QCOMPARE(setup.store.error(), std::optional<QString>(QStringLiteral("Earlier problem")));
    }

    void noStatusMeansNoEncodeCall()
    {
        Setup setup;
        setup.attach(setup.image("a.png", "bytes"));
        QVERIFY(setup.store.attachment());
        roundTrip(setup.store);
        QCOMPARE(setup.engine.countOf("/api/encode"), 0);
    }

    void modelWithoutVisionMeansNoEncodeCall()
    {
        Setup setup(FakeEngine::stateJson(QStringLiteral("text.gguf"), false));
        roundTrip(setup.store);
        QVERIFY(setup.store.hasLoadedModel());
        setup.attach(setup.image("a.png", "bytes"));
        QVERIFY(setup.store.attachment());
        roundTrip(setup.store);
        QCOMPARE(setup.engine.countOf("/api/encode"), 0);
    }

    void visionModelGetsTheImageInAdvance()
    {
        Setup setup(FakeEngine::stateJson(QStringLiteral("vision.gguf"), true));
        roundTrip(setup.store);
        QVERIFY(setup.store.vision());

        setup.attach(setup.image("a.png", "image bytes"));
        QTRY_COMPARE(setup.engine.countOf("/api/encode"), 1);
        const RecordedRequest encode = setup.engine.requestsTo("/api/encode").first();
        QCOMPARE(encode.method, QByteArray("POST"));
        QCOMPARE(encode.header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(encode.header("X-Vorn-App"), QByteArray("1"));
        const QJsonObject expected{{"url", dataURL("image/png", "image bytes")}};
        QCOMPARE(encode.json(), expected);
    }

    void failedEncodeIsIgnored()
    {
        Setup setup(FakeEngine::stateJson(QStringLiteral("vision.gguf"), true));
        setup.engine.route("POST", "/api/encode", FakeResponse::json(500, R"({"error":"cannot encode"})"));
        roundTrip(setup.store);

        setup.attach(setup.image("a.png", "image bytes"));
        QTRY_COMPARE(setup.engine.countOf("/api/encode"), 1);
        roundTrip(setup.store);
        QVERIFY(!setup.store.error());
        QCOMPARE(setup.store.attachment(), std::optional<QString>(dataURL("image/png", "image bytes")));
    }
};

QTEST_MAIN(AttachmentTest)
#include "AttachmentTest.moc"
