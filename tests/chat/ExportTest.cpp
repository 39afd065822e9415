#include "ScriptedFileChooser.h"
#include "TestHome.h"
#include "engine/EngineStore.h"
#include "model/HistoryFile.h"

#include <QDir>
#include <QFile>
#include <QtTest>

namespace {

ChatMessage message(const QString &role, const QString &text, const std::optional<QString> &image = std::nullopt)
{
    ChatMessage result;
    result.role = role;
    result.text = text;
    result.image = image;
    return result;
}

QByteArray contents(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray("<unreadable>");
    return file.readAll();
}

} // namespace

// exportText and exportChat: the selected conversation as a plain-text file.
class ExportTest : public QObject {
    Q_OBJECT

private:
    // A store whose history holds one conversation with these messages, selected.
    struct Setup {
        TestHome home;
        std::unique_ptr<EngineStore> store;
        std::shared_ptr<ScriptedFileChooser> chooser = std::make_shared<ScriptedFileChooser>();

        explicit Setup(const QList<ChatMessage> &messages, const std::optional<QString> &system = std::nullopt)
        {
            Conversation conversation;
            conversation.title = QStringLiteral("Exported");
            conversation.messages = messages;
            conversation.system = system;
            HistoryFile::prepareFolder(home.dataFolder());
            HistoryFile::save(home.historyFile(), {conversation});
            store = std::make_unique<EngineStore>();
            store->setFileChooser(chooser);
        }

        QString path(const QString &name) const { return QDir(home.path()).filePath(name); }

        // Exports through the chooser to target and returns what landed there.
        QByteArray exportTo(const QString &target, FileChooser::TextFormat format = FileChooser::TextFormat::Plain)
        {
            chooser->saveAnswers.append(FileChooser::SaveTarget(target, format));
            store->exportChat();
            return contents(target);
        }
    };

private slots:
    void questionAndReply()
    {
        Setup setup({message("user", "Hi"), message("assistant", "Hello")});
        QCOMPARE(setup.store->exportText(), QStringLiteral("USER\nHi\n\nASSISTANT\nHello"));
        const QString target = setup.path("chat.txt");
        QCOMPARE(setup.exportTo(target), QByteArray("USER\nHi\n\nASSISTANT\nHello"));
        QCOMPARE(setup.chooser->proposedSaveNames, QStringList{QStringLiteral("Vorn conversation.txt")});
        QVERIFY(!setup.store->error());
    }

    // Plain text first, as proposed, then Markdown.
    void theDialogOffersPlainTextAndMarkdown()
    {
        Setup setup({message("user", "Hi")});
        setup.exportTo(setup.path("chat.txt"));
        using Format = FileChooser::TextFormat;
        QCOMPARE(setup.chooser->offeredFormats, (QList<QList<Format>>{{Format::Plain, Format::Markdown}}));
        QCOMPARE(FileChooser::extension(Format::Plain), QStringLiteral("txt"));
        QCOMPARE(FileChooser::extension(Format::Markdown), QStringLiteral("md"));
    }

    // A heading per speaker under the title; replies as they are; an image as a note.
    void markdownHasAHeadingPerSpeaker()
    {
        const QString reply = QStringLiteral("Here:\n\n```cpp\nint x = 1;\n```\n\n* one\n* **two**");
        Setup setup({message("user", "What is this?", QStringLiteral("data:image/png;base64,iVBORw0KGgo=")),
                     message("assistant", reply), message("user", "Thanks")});
        const QByteArray expected = "# Exported\n\n"
                                    "## You\n\n*An image was attached here; it is not part of this export.*\n\n"
                                    "What is this?\n\n"
                                    "## Vorn\n\n"
            + reply.toUtf8()
            + "\n\n"
              "## You\n\nThanks\n";
        QCOMPARE(setup.store->exportMarkdown().toUtf8(), expected);
        QCOMPARE(setup.exportTo(setup.path("chat.md"), FileChooser::TextFormat::Markdown), expected);
        QVERIFY(!setup.store->error());
    }

    // A name typed without an extension takes the chosen format's.
    void markdownNameWithoutExtensionGetsMd()
    {
        Setup setup({message("user", "Hi")});
        setup.chooser->saveAnswers.append(
            FileChooser::SaveTarget(setup.path("notes"), FileChooser::TextFormat::Markdown));
        setup.store->exportChat();
        QCOMPARE(contents(setup.path("notes.md")), QByteArray("# Exported\n\n## You\n\nHi\n"));
        QVERIFY(!QFileInfo::exists(setup.path("notes.txt")));
    }

    // The system prompt the conversation is sent with comes first, in both formats;
    // an empty one writes nothing.
    void aSystemPromptIsWrittenFirst()
    {
        Setup setup({message("user", "Hi"), message("assistant", "Ahoy")},
                    QStringLiteral("Answer like a pirate.\nBe brief."));
        QCOMPARE(setup.exportTo(setup.path("system.txt")),
                 QByteArray("SYSTEM\nAnswer like a pirate.\nBe brief.\n\nUSER\nHi\n\nASSISTANT\nAhoy"));
        QCOMPARE(setup.exportTo(setup.path("system.md"), FileChooser::TextFormat::Markdown),
                 QByteArray("# Exported\n\n## System prompt\n\nAnswer like a pirate.\nBe brief.\n\n"
                            "## You\n\nHi\n\n## Vorn\n\nAhoy\n"));

        Setup none({message("user", "Hi")}, QString());
        QCOMPARE(none.exportTo(none.path("none.txt")), QByteArray("USER\nHi"));
    }

    // A name typed without an extension is saved as a text file; one with its own
    // extension is kept as typed.
    void aNameWithoutExtensionGetsTxt()
    {
        Setup setup({message("user", "Hi")});
        setup.chooser->saveAnswers.append(setup.path("notes"));
        setup.store->exportChat();
        QCOMPARE(contents(setup.path("notes.txt")), QByteArray("USER\nHi"));
        QVERIFY(!QFileInfo::exists(setup.path("notes")));
        QCOMPARE(setup.exportTo(setup.path("notes.md")), QByteArray("USER\nHi"));
        QCOMPARE(setup.exportTo(setup.path("My.Notes.TXT")), QByteArray("USER\nHi"));
        QVERIFY(!QFileInfo::exists(setup.path("My.Notes.TXT.txt")));
        QVERIFY(!setup.store->error());
    }

    void emptyConversationGivesEmptyFile()
    {
        Setup setup({});
        QCOMPARE(setup.store->exportText(), QString());
        const QString target = setup.path("empty.txt");
        QCOMPARE(setup.exportTo(target), QByteArray());
        QVERIFY(QFileInfo(target).isFile());
        QCOMPARE(QFileInfo(target).size(), 0);
    }

    void stoppedReplyIsExportedAsIs()
    {
        Setup setup({message("user", "Tell me a story"), message("assistant", "Stopped.")});
        QCOMPARE(setup.exportTo(setup.path("stopped.txt")), QByteArray("USER\nTell me a story\n\nASSISTANT\nStopped."));
    }

    void blankLinesInsideTextAreKept()
    {
        Setup setup({message("user", "One\n\nTwo\n"), message("assistant", "\n\nThree\n\n")});
        QCOMPARE(setup.exportTo(setup.path("lines.txt")), QByteArray("USER\nOne\n\nTwo\n\n\nASSISTANT\n\n\nThree\n\n"));
    }

    void imagesAreLeftOut()
    {
        Setup setup({message("user", "What is this?", QStringLiteral("data:image/png;base64,iVBORw0KGgo=")),
                     message("assistant", "A cat.")});
        QCOMPARE(setup.exportTo(setup.path("image.txt")), QByteArray("USER\nWhat is this?\n\nASSISTANT\nA cat."));
    }

    void utf8WithoutByteOrderMark()
    {
        const QString text = QStringLiteral("Caf\u00e9 \u2014 \u4f60\u597d \U0001F600");
        Setup setup({message("user", text)});
        QCOMPARE(setup.exportTo(setup.path("utf8.txt")), QByteArray("USER\n") + text.toUtf8());
    }

    void replacesExistingFile()
    {
        Setup setup({message("user", "Hi")});
        const QString target = setup.path("existing.txt");
        {
            QFile file(target);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("a much longer earlier text that must not survive in any part");
        }
        QCOMPARE(setup.exportTo(target), QByteArray("USER\nHi"));
    }

    void cancelWritesNothing()
    {
        Setup setup({message("user", "Hi")});
        setup.chooser->saveAnswers.append(std::nullopt);
        setup.store->exportChat();
        QCOMPARE(setup.chooser->proposedSaveNames.size(), 1);
        QVERIFY(!setup.store->error());
        QVERIFY(QDir(setup.home.path()).entryList({QStringLiteral("*.txt")}, QDir::Files).isEmpty());
    }

    void writeFailureShowsMessageAndLeavesNoFile()
    {
        Setup setup({message("user", "Hi")});
        const QString missingFolder = setup.path("no such folder");
        setup.chooser->saveAnswers.append(QDir(missingFolder).filePath("chat.txt"));
        setup.store->exportChat();
        QVERIFY(setup.store->error());
        QVERIFY2(setup.store->error()->contains(QStringLiteral("chat.txt")), qPrintable(*setup.store->error()));
        QVERIFY(!QFileInfo::exists(missingFolder));
    }

    void folderInTheWayShowsMessageAndChangesNothing()
    {
        Setup setup({message("user", "Hi")});
        const QString folder = setup.path("taken.txt");
        QVERIFY(QDir().mkpath(folder));
        const QStringList before =
            QDir(setup.home.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);

        setup.chooser->saveAnswers.append(folder);
        setup.store->exportChat();
        QVERIFY(setup.store->error());
        QVERIFY(QFileInfo(folder).isDir());
        QCOMPARE(QDir(setup.home.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), before);
    }
};

QTEST_MAIN(ExportTest)
#include "ExportTest.moc"
