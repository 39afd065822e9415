#include "SampleHistory.h"

#include <QStringList>

namespace {

const QStringList words =
    QStringLiteral("the a of and to in is it that for on with as was at by this be from or have an they which "
                   "one you were her all she there would their we him been has when who will more no if out so "
                   "said what up its about into than them can only other new some could time these two may then "
                   "do first any my now such like our over man me even most made after also did many before must "
                   "through back years where much your way well down should because each just those people how "
                   "too little state good very make world still own see men work long get here between both life "
                   "being under never day same another know while last might us great old year off come since "
                   "against go came right used take three light garden river window kettle bread market letter "
                   "winter summer engine bridge forest paper music ladder harbour candle")
        .split(QLatin1Char(' '));

// A small, fixed generator, so every run writes the same history.
class Words {
public:
    explicit Words(quint64 seed) : m_state(seed | 1) {}

    QString next()
    {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 7;
        m_state ^= m_state << 17;
        return words.at(static_cast<qsizetype>(m_state % static_cast<quint64>(words.size())));
    }

    QString sentence(int length)
    {
        QString text = next();
        text[0] = text[0].toUpper();
        for (int index = 1; index < length; ++index)
            text += QLatin1Char(' ') + next();
        return text;
    }

private:
    quint64 m_state;
};

} // namespace

namespace SampleHistory {

QList<Conversation> make(int conversations, int messages)
{
    QList<Conversation> history;
    Words generator(0x5eed);
    for (int index = 0; index < conversations; ++index) {
        Conversation conversation;
        conversation.title = generator.sentence(4);
        for (int message = 0; message < messages; ++message) {
            const bool user = message % 2 == 0;
            QString text;
            if (user) {
                text = generator.sentence(10) + QLatin1Char('?');
            } else {
                // About 60 words in six sentences, like an ordinary reply.
                for (int sentence = 0; sentence < 6; ++sentence)
                    text += generator.sentence(10) + QStringLiteral(". ");
                if (index % 100 == 37 && message == messages - 1)
                    text += QStringLiteral("The old ") + rareWord + QStringLiteral(" kept its light on.");
            }
            conversation.messages.append(ChatMessage{
                QUuid::createUuid(), user ? QStringLiteral("user") : QStringLiteral("assistant"), text, std::nullopt});
        }
        history.append(conversation);
    }
    return history;
}

} // namespace SampleHistory
