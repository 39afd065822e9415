#include "model/ByteCountText.h"
#include "model/ContextUse.h"
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

    void modelDetailsAreReadWhenPresentAndLeftOutOtherwise()
    {
        const auto detailed = LocalModel::fromJson(
            QJsonDocument::fromJson(R"({"name":"tiny.gguf","size":1185376,"projector":false,"architecture":"llama",)"
                                    R"("context_length":131072,"parameters":1100048384,"quantization":"Q4_0",)"
                                    R"("kv_bytes_per_token":22528,"unknown":{"nested":[1]}})")
                .object());
        QVERIFY(detailed);
        QCOMPARE(detailed->architecture, std::optional<QString>(QStringLiteral("llama")));
        QCOMPARE(detailed->contextLength, std::optional<qint64>(131072));
        QCOMPARE(detailed->parameters, std::optional<qint64>(1100048384));
        QCOMPARE(detailed->quantization, std::optional<QString>(QStringLiteral("Q4_0")));
        QCOMPARE(detailed->kvBytesPerToken, std::optional<qint64>(22528));
        QCOMPARE(detailed->detailsLabel(), QStringLiteral("llama \u00b7 1.1B \u00b7 Q4_0 \u00b7 128K context"));
        // Encoded and read again, the details stay.
        QCOMPARE(LocalModel::fromJson(detailed->toJson()), detailed);

        // An older engine sends none: the entry decodes, and shows no details.
        const auto plain = LocalModel::fromJson(
            QJsonDocument::fromJson(R"({"name":"m.gguf","size":5,"projector":false})").object());
        QVERIFY(plain);
        QVERIFY(!plain->architecture && !plain->contextLength && !plain->parameters && !plain->quantization
                && !plain->kvBytesPerToken);
        QCOMPARE(plain->detailsLabel(), QString());
        QCOMPARE(plain->kvCacheLabel(4096), QString());
        QCOMPARE(plain->toJson().keys(), (QStringList{"name", "projector", "size"}));

        // Details of another type, or counts that are not positive whole numbers, are
        // ignored rather than failing the whole status.
        const auto odd = LocalModel::fromJson(
            QJsonDocument::fromJson(
                R"({"name":"m.gguf","size":5,"projector":false,"architecture":7,"context_length":"4096",)"
                R"("parameters":1.5,"quantization":null,"kv_bytes_per_token":-3})")
                .object());
        QVERIFY(odd);
        QCOMPARE(odd->detailsLabel(), QString());
        QVERIFY(EngineState::decode(minimalState(R"("models":[])",
                                                 R"("models":[{"name":"m.gguf","size":5,"projector":false,)"
                                                 R"("context_length":"x","architecture":[]}])")));
    }

    void modelDetailsShowWhatTheHeaderGives()
    {
        LocalModel model{"m.gguf", 1, false};
        model.quantization = QStringLiteral("F32");
        QCOMPARE(model.detailsLabel(), QStringLiteral("F32"));
        model.parameters = 292800;
        model.contextLength = 2048;
        QCOMPARE(model.detailsLabel(), QStringLiteral("293K \u00b7 F32 \u00b7 2K context"));
        model.architecture = QStringLiteral("clip");
        model.contextLength.reset();
        QCOMPARE(model.detailsLabel(), QStringLiteral("clip \u00b7 293K \u00b7 F32"));
    }

    void counts_data()
    {
        QTest::addColumn<qint64>("number");
        QTest::addColumn<QString>("parameters");
        QTest::addColumn<QString>("context");
        QTest::newRow("tiny") << qint64(512) << "512"
                              << "512";
        QTest::newRow("260K") << qint64(292800) << "293K"
                              << "292,800";
        QTest::newRow("2K") << qint64(2048) << "2.0K"
                            << "2K";
        QTest::newRow("8000") << qint64(8000) << "8.0K"
                              << "8,000";
        QTest::newRow("1B") << qint64(1100048384) << "1.1B"
                            << "1074266K";
        QTest::newRow("7B") << qint64(6738415616) << "6.7B"
                            << "6580484K";
        QTest::newRow("13B") << qint64(13015864321) << "13B"
                             << "13,015,864,321";
        QTest::newRow("9.96B") << qint64(9960000000) << "10B"
                               << "9,960,000,000";
        QTest::newRow("128K") << qint64(131072) << "131K"
                              << "128K";
        QTest::newRow("1M") << qint64(1048576) << "1.0M"
                            << "1M";
    }

    void counts()
    {
        QFETCH(qint64, number);
        QFETCH(QString, parameters);
        QFETCH(QString, context);
        QCOMPARE(parameterCountText(number), parameters);
        QCOMPARE(contextLengthText(number), context);
    }

    void theKvCacheFollowsTheContextAModelLoadsWith()
    {
        LocalModel model{"m.gguf", 1, false};
        model.kvBytesPerToken = 22528;
        // Without a trained context, the choice is taken as it is; its maximum is unknown.
        QCOMPARE(model.loadContext(8192), qint64(8192));
        QCOMPARE(model.loadContext(0), qint64(0));
        QCOMPARE(model.contextFor(0), std::optional<qint64>());
        QCOMPARE(model.kvCacheLabel(0), QString());
        QCOMPARE(model.kvCacheLabel(4096), QStringLiteral("KV cache for 4K context: 92.3 MB"));

        model.contextLength = 2048;
        // Up to 4096 tokens the engine takes any context; beyond the trained context
        // the model loads with its maximum.
        QCOMPARE(model.loadContext(4096), qint64(4096));
        QCOMPARE(model.loadContext(2048), qint64(2048));
        QCOMPARE(model.loadContext(32768), qint64(0));
        QCOMPARE(model.contextFor(32768), std::optional<qint64>(2048));
        QCOMPARE(model.contextFor(0), std::optional<qint64>(2048));
        QCOMPARE(model.kvCacheLabel(0), QStringLiteral("KV cache for 2K context: 46.1 MB"));

        model.contextLength = 131072;
        QCOMPARE(model.loadContext(32768), qint64(32768));
        QCOMPARE(model.kvCacheLabel(0), QStringLiteral("KV cache for 128K context: 2.95 GB"));
        // A projector loads with a model, not with a context of its own.
        model.projector = true;
        QCOMPARE(model.kvCacheLabel(4096), QString());
        // A size past what a count holds is not believed.
        model.projector = false;
        model.kvBytesPerToken = std::numeric_limits<qint64>::max() / 2;
        QCOMPARE(model.kvCacheLabel(4096), QString());
    }

    void contextUseFromACountAndFromAReply()
    {
        const auto counted = ContextUse::fromCount(
            QJsonDocument::fromJson(R"({"tokens":2310,"size":8192,"dropped_messages":0,"extra":1})").object());
        QCOMPARE(counted, std::optional<ContextUse>(ContextUse{2310, 8192, 0}));
        QVERIFY(!ContextUse::fromCount(QJsonDocument::fromJson(R"({"tokens":1,"size":8192})").object()));
        QVERIFY(!ContextUse::fromCount(
            QJsonDocument::fromJson(R"({"tokens":"1","size":8192,"dropped_messages":0})").object()));
        QVERIFY(
            !ContextUse::fromCount(QJsonDocument::fromJson(R"({"tokens":1,"size":0,"dropped_messages":0})").object()));
        QVERIFY(!ContextUse::fromCount(
            QJsonDocument::fromJson(R"({"tokens":1,"size":64,"dropped_messages":-1})").object()));

        const auto replied = ContextUse::fromReply(
            QJsonDocument::fromJson(
                R"({"choices":[],"usage":{"prompt_tokens":321,"completion_tokens":8,"total_tokens":329},)"
                R"("context":{"size":512,"dropped_messages":56}})")
                .object());
        QCOMPARE(replied, std::optional<ContextUse>(ContextUse{329, 512, 56}));
        // Usage alone, as older engines sent it, tells nothing of the context.
        QVERIFY(!ContextUse::fromReply(
            QJsonDocument::fromJson(R"({"usage":{"prompt_tokens":1,"completion_tokens":1,"total_tokens":2}})")
                .object()));
    }

    void nearlyFullFromEightyPercent()
    {
        QVERIFY(!(ContextUse{3276, 4096, 0}.nearlyFull()));
        QVERIFY((ContextUse{3277, 4096, 0}.nearlyFull()));
        QVERIFY((ContextUse{4096, 4096, 0}.nearlyFull()));
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
