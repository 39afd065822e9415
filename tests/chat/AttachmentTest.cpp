#include "StoreTestCase.h"

#include <QDir>
#include <QFile>
#include <QtTest>

namespace {

constexpr qint64 limitBytes = 31457280;

const QString tooLargeMessage = QStringLiteral("Please choose an image smaller than 30 MB.");

} // namespace

// attachImage: reading the chosen file into a data URL and the engine's pre-encoding.
class AttachmentTest : public StoreTestCase {
    Q_OBJECT

private:
    QString image(const QString &name, const QByteArray &bytes)
    {
        return setup().writeFile(QStringLiteral("Pictures/") + name, bytes);
    }

    void attach(const QString &path)
    {
        setup().chooser->openAnswers.append({path});
        store().attachImage();
    }

    static QString dataURL(const QString &mime, const QByteArray &bytes)
    {
        return QStringLiteral("data:") + mime + QStringLiteral(";base64,") + QString::fromLatin1(bytes.toBase64());
    }

private slots:
    void init()
    {
        StoreTestCase::init();
        engine().route("POST", "/api/encode", FakeResponse::json(200, "{}"));
    }

    void asksForOneImage()
    {
        attach(image("a.png", "png bytes"));
        QCOMPARE(setup().chooser->openRequests.size(), 1);
        QCOMPARE(setup().chooser->openRequests.first().kind, FileChooser::Kind::Images);
        QVERIFY(!setup().chooser->openRequests.first().multiple);
    }

    void fileOfExactlyTheLimitIsAttachedOneByteMoreIsRefused()
    {
        QByteArray bytes(limitBytes, '\0');
        for (qsizetype index = 0; index < bytes.size(); index += 4096)
            bytes[index] = char(index / 4096);
        attach(image("exact.png", bytes));
        QVERIFY(!store().error());
        QVERIFY(store().attachment());
        QCOMPARE(*store().attachment(), dataURL("image/png", bytes));

        const QString before = *store().attachment();
        attach(image("larger.png", bytes + 'x'));
        QCOMPARE(store().error(), std::optional<QString>(tooLargeMessage));
        QCOMPARE(store().attachment(), std::optional<QString>(before));
    }

    void tooLargeWithNothingAttachedLeavesNothing()
    {
        attach(image("huge.jpg", QByteArray(limitBytes + 1, 'x')));
        QCOMPARE(store().error(), std::optional<QString>(tooLargeMessage));
        QVERIFY(!store().attachment());
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
        // The bytes are not looked at: PNG bytes in a .jpg file still say image/jpeg.
        const QByteArray bytes("\x89PNG\r\n\x1a\n rest of the file", 25);
        attach(image(name, bytes));
        QCOMPARE(store().attachment(), std::optional<QString>(dataURL(mime, bytes)));
    }

    void attachingTwiceKeepsTheSecond()
    {
        attach(image("first.png", "first"));
        attach(image("second.jpg", "second"));
        QCOMPARE(store().attachment(), std::optional<QString>(dataURL("image/jpeg", "second")));
    }

    void cancelChangesNothing()
    {
        attach(image("first.png", "first"));
        store().setError(QStringLiteral("Earlier problem"));
        setup().chooser->openAnswers.append(QStringList());
        store().attachImage();
        QCOMPARE(store().attachment(), std::optional<QString>(dataURL("image/png", "first")));
        QCOMPARE(store().error(), std::optional<QString>(QStringLiteral("Earlier problem")));
    }

    void unreadableFileShowsMessageAndKeepsAttachment()
    {
        attach(image("first.png", "first"));

        attach(QDir(home().path()).filePath("Pictures/gone.png"));
        QVERIFY(store().error());
        QVERIFY2(store().error()->contains(QStringLiteral("gone.png")), qPrintable(*store().error()));
        QCOMPARE(store().attachment(), std::optional<QString>(dataURL("image/png", "first")));

        store().clearError();
        attach(QDir(home().path()).filePath("Pictures"));
        QVERIFY(store().error());
        QCOMPARE(store().attachment(), std::optional<QString>(dataURL("image/png", "first")));
    }

    void successKeepsEarlierError()
    {
        store().setError(QStringLiteral("Earlier problem"));
        attach(image("a.png", "bytes"));
        QVERIFY(store().attachment());
        QCOMPARE(store().error(), std::optional<QString>(QStringLiteral("Earlier problem")));
    }

    void noStatusMeansNoEncodeCall()
    {
        attach(image("a.png", "bytes"));
        QVERIFY(store().attachment());
        QVERIFY(setup().roundTrip());
        QCOMPARE(engine().countOf("/api/encode"), 0);
    }

    void modelWithoutVisionMeansNoEncodeCall()
    {
        engine().setState(FakeEngine::stateJson(QStringLiteral("text.gguf"), false));
        QVERIFY(setup().roundTrip());
        QVERIFY(store().hasLoadedModel());
        attach(image("a.png", "bytes"));
        QVERIFY(store().attachment());
        QVERIFY(setup().roundTrip());
        QCOMPARE(engine().countOf("/api/encode"), 0);
    }

    void visionModelGetsTheImageInAdvance()
    {
        engine().setState(FakeEngine::stateJson(QStringLiteral("vision.gguf"), true));
        QVERIFY(setup().roundTrip());
        QVERIFY(store().vision());

        attach(image("a.png", "image bytes"));
        QTRY_COMPARE(engine().countOf("/api/encode"), 1);
        const RecordedRequest encode = engine().requestsTo("/api/encode").first();
        QCOMPARE(encode.method, QByteArray("POST"));
        QCOMPARE(encode.header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(encode.header("X-Vorn-App"), QByteArray("1"));
        const QJsonObject expected{{"url", dataURL("image/png", "image bytes")}};
        QCOMPARE(encode.json(), expected);
    }

    void failedEncodeIsIgnored()
    {
        engine().setState(FakeEngine::stateJson(QStringLiteral("vision.gguf"), true));
        engine().route("POST", "/api/encode", FakeResponse::json(500, R"({"error":"cannot encode"})"));
        QVERIFY(setup().roundTrip());

        attach(image("a.png", "image bytes"));
        QTRY_COMPARE(engine().countOf("/api/encode"), 1);
        QVERIFY(setup().roundTrip());
        QVERIFY(!store().error());
        QCOMPARE(store().attachment(), std::optional<QString>(dataURL("image/png", "image bytes")));
    }
};

QTEST_MAIN(AttachmentTest)
#include "AttachmentTest.moc"
