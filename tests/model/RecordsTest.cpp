#include "model/ByteCountText.h"
#include "model/EngineState.h"

#include <QJsonDocument>
#include <QtTest>

class RecordsTest : public QObject {
    Q_OBJECT

private:
    static QByteArray minimalState(const QByteArray &replace = {}, const QByteArray &with = {})
    {
        QByteArray json = R"({"version":"1","dir":"/m","ctx":4096,"vision":false,"models":[],"downloads":[],)"
                          R"("last":{"decode_tps":0,"prefill_tps":0,"prompt_tokens":0,"completion_tokens":0}})";
        if (!replace.isEmpty())
            json.replace(replace, with);
        return json;
    }

private slots:
    void minimalStatusDecodesWithoutLoadedAndBackend()
    {
        const auto state = EngineState::decode(minimalState());
        QVERIFY(state);
        QCOMPARE(state->version, QStringLiteral("1"));
        QCOMPARE(state->dir, QStringLiteral("/m"));
        QCOMPARE(state->ctx, 4096);
        QVERIFY(!state->vision);
        QVERIFY(!state->loaded);
        QVERIFY(!state->backend);
        QVERIFY(state->models.isEmpty());
        QVERIFY(state->downloads.isEmpty());
    }

    void nullOptionalsAreAbsent()
    {
        const auto state = EngineState::decode(minimalState(R"("ctx")", R"("loaded":null,"backend":null,"ctx")"));
        QVERIFY(state);
        QVERIFY(!state->loaded);
        QVERIFY(!state->backend);
    }

    void optionalTextsAreRead()
    {
        const auto state = EngineState::decode(minimalState(R"("ctx")", R"("loaded":"a.gguf","backend":"gpu","ctx")"));
        QVERIFY(state);
        QCOMPARE(*state->loaded, QStringLiteral("a.gguf"));
        QCOMPARE(*state->backend, QStringLiteral("gpu"));
    }

    void failures_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::newRow("without last") << QByteArray(
            R"({"version":"1","dir":"/m","ctx":4096,"vision":false,"models":[],"downloads":[]})");
        QTest::newRow("ctx as text") << minimalState(R"("ctx":4096)", R"("ctx":"4096")");
        QTest::newRow("ctx fractional") << minimalState(R"("ctx":4096)", R"("ctx":4096.5)");
        QTest::newRow("ctx too large") << minimalState(R"("ctx":4096)", R"("ctx":1e30)");
        QTest::newRow("vision as number") << minimalState(R"("vision":false)", R"("vision":0)");
        QTest::newRow("version missing") << minimalState(R"("version":"1",)", "");
        QTest::newRow("version as number") << minimalState(R"("version":"1")", R"("version":1)");
        QTest::newRow("loaded as number") << minimalState(R"("ctx")", R"("loaded":5,"ctx")");
        QTest::newRow("backend as bool") << minimalState(R"("ctx")", R"("backend":true,"ctx")");
        QTest::newRow("models as object") << minimalState(R"("models":[])", R"("models":{})");
        QTest::newRow("one bad model") << minimalState(
            R"("models":[])",
            R"("models":[{"name":"a.gguf","size":1,"projector":false},{"name":"b.gguf","size":"1","projector":false}])");
        QTest::newRow("model without projector")
            << minimalState(R"("models":[])", R"("models":[{"name":"a.gguf","size":1}])");
        QTest::newRow("one bad download")
            << minimalState(R"("downloads":[])", R"("downloads":[{"name":"a.gguf","bytes":1.5,"total":3}])");
        QTest::newRow("last tokens fractional") << minimalState(R"("prompt_tokens":0)", R"("prompt_tokens":0.5)");
        QTest::newRow("last decode as text") << minimalState(R"("decode_tps":0)", R"("decode_tps":"0")");
        QTest::newRow("array at top") << QByteArray("[]");
        QTest::newRow("not json") << QByteArray("{");
        QTest::newRow("empty") << QByteArray();
    }

    void failures()
    {
        QFETCH(QByteArray, json);
        QVERIFY(!EngineState::decode(json));
    }

    void unknownMembersAreIgnoredAtEveryLevel()
    {
        QByteArray json = minimalState(
            R"("models":[])", R"("extra":{"x":1},"models":[{"name":"m.gguf","size":5,"projector":true,"quant":"Q4"}])");
        json.replace(R"("completion_tokens":0})", R"("completion_tokens":0,"other":"x"})");
        const auto state = EngineState::decode(json);
        QVERIFY(state);
        QCOMPARE(state->models.size(), 1);
        QVERIFY(state->models.first().projector);
    }

    void integralFloatsAreIntegers()
    {
        const auto state = EngineState::decode(minimalState(R"("ctx":4096)", R"("ctx":4096.0)"));
        QVERIFY(state);
        QCOMPARE(state->ctx, 4096);
    }

    void largeIntegersKeepEveryDigit()
    {
        const auto state = EngineState::decode(minimalState(
            R"("models":[])", R"("models":[{"name":"big.gguf","size":9007199254740993,"projector":false}])"));
        QVERIFY(state);
        QCOMPARE(state->models.first().size, Q_INT64_C(9007199254740993));
    }

    void downloadWithTotalZeroDecodes()
    {
        const auto state = EngineState::decode(
            minimalState(R"("downloads":[])", R"("downloads":[{"name":"d.gguf","bytes":10,"total":0}])"));
        QVERIFY(state);
        QCOMPARE(state->downloads.size(), 1);
        QCOMPARE(state->downloads.first().total, 0);
        QCOMPARE(state->downloads.first().fraction(), 0.0);
    }

    void encodesBackWithSameMembers()
    {
        const QByteArray json =
            minimalState(R"("ctx")", R"("loaded":"x.gguf","ctx")")
                .replace(R"("models":[])", R"("models":[{"name":"x.gguf","size":12,"projector":false}])")
                .replace(R"("downloads":[])", R"("downloads":[{"name":"y.gguf","bytes":1,"total":2}])");
        const auto state = EngineState::decode(json);
        QVERIFY(state);
        const QJsonObject encoded = state->toJson();
        QCOMPARE(encoded.value("loaded").toString(), QStringLiteral("x.gguf"));
        QVERIFY(encoded.value("backend").isNull());
        QCOMPARE(encoded.value("last").toObject().keys(),
                 (QStringList{"completion_tokens", "decode_tps", "prefill_tps", "prompt_tokens"}));
        const auto again = EngineState::decode(QJsonDocument(encoded).toJson());
        QVERIFY(again);
        QCOMPARE(again->models.first().name, QStringLiteral("x.gguf"));
        QCOMPARE(again->downloads.first().total, 2);
        QCOMPARE(*again->loaded, QStringLiteral("x.gguf"));
    }

    void modelTitle()
    {
        QCOMPARE((LocalModel{"my-model-Q4.gguf", 1, false}.title()), QStringLiteral("my model Q4"));
        QCOMPARE((LocalModel{"a.gguf-b_c.gguf", 1, false}.title()), QStringLiteral("a b_c"));
        QCOMPARE((LocalModel{"x.gguf", 1, false}.id()), QStringLiteral("x.gguf"));
    }

    void modelSizeLabel()
    {
        QCOMPARE((LocalModel{"m.gguf", 0, false}.sizeLabel()), QStringLiteral("Source file missing"));
        QCOMPARE((LocalModel{"m.gguf", -1, false}.sizeLabel()), QStringLiteral("Source file missing"));
        QCOMPARE((LocalModel{"m.gguf", 1, false}.sizeLabel()), QStringLiteral("1 byte"));
        QCOMPARE((LocalModel{"m.gguf", 4368000000, false}.sizeLabel()), QStringLiteral("4.37 GB"));
    }

    void byteCounts_data()
    {
        QTest::addColumn<qint64>("bytes");
        QTest::addColumn<QString>("text");
        QTest::newRow("0") << qint64(0) << "Zero KB";
        QTest::newRow("1") << qint64(1) << "1 byte";
        QTest::newRow("2") << qint64(2) << "2 bytes";
        QTest::newRow("999") << qint64(999) << "999 bytes";
        QTest::newRow("1000") << qint64(1000) << "1 KB";
        QTest::newRow("1499") << qint64(1499) << "1 KB";
        QTest::newRow("1500") << qint64(1500) << "2 KB";
        QTest::newRow("999999") << qint64(999999) << "1 MB";
        QTest::newRow("1000000") << qint64(1000000) << "1 MB";
        QTest::newRow("1234567") << qint64(1234567) << "1.2 MB";
        QTest::newRow("1185376") << qint64(1185376) << "1.2 MB";
        QTest::newRow("999950000") << qint64(999950000) << "1 GB";
        QTest::newRow("4368000000") << qint64(4368000000) << "4.37 GB";
        QTest::newRow("4300000000") << qint64(4300000000) << "4.3 GB";
        QTest::newRow("2000000000000") << qint64(2000000000000) << "2 TB";
        QTest::newRow("-1") << qint64(-1) << "-1 byte";
        QTest::newRow("-5") << qint64(-5) << "-5 bytes";
        QTest::newRow("-1500") << qint64(-1500) << "-2 KB";
        QTest::newRow("-1234567") << qint64(-1234567) << "-1.2 MB";
    }

    void byteCounts()
    {
        QFETCH(qint64, bytes);
        QFETCH(QString, text);
        QCOMPARE(byteCountText(bytes), text);
    }

    void downloadReceivedLabel()
    {
        const DownloadState download{"d.gguf", 500, 1000};
        QCOMPARE(download.fraction(), 0.5);
        QCOMPARE(download.receivedLabel(), QStringLiteral("500 bytes downloaded"));
    }
};

QTEST_GUILESS_MAIN(RecordsTest)
#include "RecordsTest.moc"
