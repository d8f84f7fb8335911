// Real readers through pcsc-lite. Every card session runs on a thread of its own with a time
// limit, so a mute card, a reader that hangs or a service that stops answering costs a page
// at most that limit; the session's thread finishes on its own when the driver gives up.
#include "devicelib/portable/cards/pcsc.h"
#include "devicelib/portable/core.h"

#include <QDate>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <winscard.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace portable::cards::pcsc {
namespace {

// The service context the reader list and bCloseIDCardDevie share.
struct Shared {
    std::mutex mutex;
    SCARDCONTEXT context = 0;
    bool open = false;
};

Shared& shared()
{
    static Shared* const s = new Shared;   // lives to the end, like the profile
    return *s;
}

QString errorText(LONG rv)
{
    return QStringLiteral("%1 (0x%2)").arg(QString::fromLatin1(pcsc_stringify_error(rv))).arg(quint32(rv), 8, 16, QLatin1Char('0'));
}

Failure failureOf(LONG rv)
{
    switch (rv) {
    case LONG(SCARD_E_NO_SMARTCARD):
    case LONG(SCARD_W_REMOVED_CARD):
    case LONG(SCARD_W_UNPOWERED_CARD):
    case LONG(SCARD_E_NOT_READY):
        return Failure::NoCard;
    case LONG(SCARD_E_UNKNOWN_READER):
    case LONG(SCARD_E_READER_UNAVAILABLE):
    case LONG(SCARD_E_NO_SERVICE):
    case LONG(SCARD_E_NO_READERS_AVAILABLE):
        return Failure::NoReader;
    case LONG(SCARD_E_SHARING_VIOLATION):
        return Failure::Busy;
    default:
        return Failure::ReadError;
    }
}

// Runs job on a thread of its own and gives its result, or fallback when it takes longer
// than ms. The job owns what it works on; nothing of the caller's is touched after a time-out.
template <class R>
R bounded(int ms, std::function<R()> job, R fallback)
{
    struct Slot {
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
        R result;
    };
    auto slot = std::make_shared<Slot>();
    std::thread([slot, job = std::move(job)] {
        R r = job();
        std::lock_guard<std::mutex> lock(slot->mutex);
        slot->result = std::move(r);
        slot->finished = true;
        slot->done.notify_all();
    }).detach();
    std::unique_lock<std::mutex> lock(slot->mutex);
    if (!slot->done.wait_for(lock, std::chrono::milliseconds(ms), [&] { return slot->finished; }))
        return fallback;
    return slot->result;
}

// One card in one reader, on the session's own context.
class Session {
public:
    ~Session()
    {
        if (m_card)
            SCardDisconnect(m_card, SCARD_LEAVE_CARD);
        if (m_context)
            SCardReleaseContext(m_context);
    }

    LONG connect(const QByteArray& reader)
    {
        LONG rv = SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &m_context);
        if (rv != SCARD_S_SUCCESS) {
            m_context = 0;
            return rv;
        }
        rv = SCardConnect(m_context, reader.constData(), SCARD_SHARE_SHARED, SCARD_PROTOCOL_T0 | SCARD_PROTOCOL_T1,
                          &m_card, &m_protocol);
        if (rv != SCARD_S_SUCCESS)
            m_card = 0;
        return rv;
    }

    // The card's answer with its status word; empty, with *rv set, when it gave none.
    QByteArray transmit(const QByteArray& apdu, LONG* rv)
    {
        const SCARD_IO_REQUEST* pci = m_protocol == SCARD_PROTOCOL_T1 ? SCARD_PCI_T1 : SCARD_PCI_T0;
        std::vector<unsigned char> buffer(65538);
        DWORD length = static_cast<DWORD>(buffer.size());
        *rv = SCardTransmit(m_card, pci, reinterpret_cast<const unsigned char*>(apdu.constData()),
                            static_cast<DWORD>(apdu.size()), nullptr, buffer.data(), &length);
        if (*rv != SCARD_S_SUCCESS || length < 2)
            return QByteArray();
        return QByteArray(reinterpret_cast<const char*>(buffer.data()), static_cast<int>(length));
    }

private:
    SCARDCONTEXT m_context = 0;
    SCARDHANDLE m_card = 0;
    DWORD m_protocol = 0;
};

struct Outcome {
    Failure failure = Failure::ReadError;
    QString why = QStringLiteral("the card or the reader did not answer in time");
    QByteArray uid;
    BankCard card;
};

// --- TLV (BER) as EMV cards write it ---------------------------------------------------

struct Tlv {
    quint32 tag;
    QByteArray value;
};

// Every element of data, nested ones included, in order; stops at the first malformed one.
void parseTlv(const QByteArray& data, QList<Tlv>* out, int depth = 0)
{
    int i = 0;
    const int n = data.size();
    while (i < n && depth < 8 && out->size() < 512) {
        const auto byte = [&](int k) { return static_cast<quint8>(data[k]); };
        if (byte(i) == 0x00 || byte(i) == 0xFF) {   // padding between elements
            ++i;
            continue;
        }
        const bool constructed = byte(i) & 0x20;
        quint32 tag = byte(i++);
        if ((tag & 0x1F) == 0x1F) {
            int more = 0;
            do {
                if (i >= n || ++more > 3)
                    return;
                tag = (tag << 8) | byte(i);
            } while (byte(i++) & 0x80);
        }
        if (i >= n)
            return;
        int length = byte(i++);
        if (length & 0x80) {
            const int count = length & 0x7F;
            if (count < 1 || count > 2 || i + count > n)
                return;
            length = 0;
            for (int k = 0; k < count; ++k)
                length = (length << 8) | byte(i++);
        }
        if (length > n - i)
            return;
        const QByteArray value = data.mid(i, length);
        out->append({tag, value});
        if (constructed)
            parseTlv(value, out, depth + 1);
        i += length;
    }
}

QByteArray find(const QList<Tlv>& tlv, quint32 tag)
{
    for (const Tlv& t : tlv) {
        if (t.tag == tag)
            return t.value;
    }
    return QByteArray();
}

quint16 statusOf(const QByteArray& r)
{
    return r.size() < 2 ? 0 : quint16((quint8(r[r.size() - 2]) << 8) | quint8(r[r.size() - 1]));
}

// Sends a command the way T=0 cards want it: 61xx fetches the rest with GET RESPONSE, 6Cxx
// sends the command again with the length the card named.
QByteArray exchange(const Apdu& apdu, QByteArray command)
{
    QByteArray answer;
    for (int round = 0; round < 16; ++round) {
        const QByteArray r = apdu(command);
        if (r.size() < 2)
            return QByteArray();
        const quint8 sw1 = quint8(r[r.size() - 2]), sw2 = quint8(r[r.size() - 1]);
        if (sw1 == 0x6C && command.size() >= 5) {
            // Every command here ends in its Le: that byte takes the length the card wants.
            command[command.size() - 1] = char(sw2);
            continue;
        }
        answer += r.left(r.size() - 2);
        if (sw1 == 0x61) {
            command = QByteArray::fromHex("00C00000") + char(sw2);
            continue;
        }
        if (answer.size() > 65536)
            return QByteArray();
        return answer + r.right(2);
    }
    return QByteArray();
}

QByteArray select(const Apdu& apdu, const QByteArray& name)
{
    return exchange(apdu, QByteArray::fromHex("00A40400") + char(name.size()) + name + char(0));
}

QByteArray readRecord(const Apdu& apdu, int sfi, int record)
{
    return exchange(apdu, QByteArray::fromHex("00B2") + char(record) + char((sfi << 3) | 4) + char(0));
}

// Payment applications a directory (PPSE answer, or PSE records) names, highest priority first.
QList<QByteArray> applicationsOf(const QList<Tlv>& tlv)
{
    QList<QPair<int, QByteArray>> found;
    for (const Tlv& t : tlv) {
        if (t.tag != 0x61)
            continue;
        QList<Tlv> entry;
        parseTlv(t.value, &entry);
        const QByteArray aid = find(entry, 0x4F);
        const QByteArray priority = find(entry, 0x87);
        if (aid.size() >= 5 && aid.size() <= 16)
            found.append({priority.isEmpty() ? 15 : (quint8(priority[0]) & 0x0F), aid});
    }
    std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    QList<QByteArray> aids;
    for (const auto& f : found)
        aids.append(f.second);
    return aids;
}

// Contact cards often have no PPSE and some no PSE: the applications tried then.
const char* const kKnownAids[] = {
    "A000000333010101", "A000000333010102", "A000000333010103", "A000000333010106",   // UnionPay
    "A0000000031010", "A0000000032010",                                               // Visa
    "A0000000041010", "A0000000043060",                                               // Mastercard, Maestro
    "A0000000651010", "A00000002501", "A0000001523010",                               // JCB, Amex, Discover
};

// The value a terminal gives each PDOL item it is asked for; zeros for anything unknown.
QByteArray pdolValue(quint32 tag, int length)
{
    QByteArray v;
    const QDate today = QDate::currentDate();
    auto bcd = [](int n) { return char(((n / 10) << 4) | (n % 10)); };
    switch (tag) {
    case 0x9F66: v = QByteArray::fromHex("26000080"); break;   // contact and contactless, online
    case 0x9F1A: case 0x5F2A: v = QByteArray::fromHex("0156"); break;   // China, CNY
    case 0x9A: v = QByteArray() + bcd(today.year() % 100) + bcd(today.month()) + bcd(today.day()); break;
    case 0x9C: v = QByteArray(1, 0); break;
    case 0x9F35: v = QByteArray::fromHex("22"); break;
    case 0x9F33: v = QByteArray::fromHex("E0E1C8"); break;
    case 0x9F40: v = QByteArray::fromHex("6000F0A001"); break;
    case 0x9F37: {
        const quint32 r = QRandomGenerator::global()->generate();
        v = QByteArray(reinterpret_cast<const char*>(&r), 4);
        break;
    }
    default: break;
    }
    v = v.left(length);
    v.append(QByteArray(length - v.size(), 0));
    return v;
}

QByteArray pdolData(const QByteArray& pdol)
{
    QByteArray data;
    int i = 0;
    while (i < pdol.size() && data.size() < 250) {
        quint32 tag = quint8(pdol[i++]);
        if ((tag & 0x1F) == 0x1F) {
            while (i < pdol.size() && (tag & 0xFF000000) == 0) {
                const quint8 b = quint8(pdol[i++]);
                tag = (tag << 8) | b;
                if (!(b & 0x80))
                    break;
            }
        }
        if (i >= pdol.size())
            break;
        data += pdolValue(tag, quint8(pdol[i++]));
    }
    return data.left(250);
}

QByteArray digits(const QByteArray& bcd)
{
    QByteArray d = bcd.toHex().toUpper();
    const int end = d.indexOf('F');
    return end < 0 ? d : d.left(end);
}

QByteArray printable(const QByteArray& s)
{
    QByteArray r;
    for (char c : s)
        r += (c >= 0x20 && c < 0x7f) ? c : '?';
    return r.trimmed();
}

// Fills what a list of elements holds of the card number, expiry and holder.
void take(const QList<Tlv>& tlv, BankCard* card)
{
    const QByteArray pan = find(tlv, 0x5A);
    if (card->pan.isEmpty() && !pan.isEmpty())
        card->pan = digits(pan);
    const QByteArray track2 = find(tlv, 0x57);
    if (!track2.isEmpty()) {
        const QByteArray t = track2.toHex().toUpper();
        const int d = t.indexOf('D');
        if (d > 0) {
            if (card->pan.isEmpty())
                card->pan = t.left(d);
            if (card->expiry.isEmpty() && t.size() >= d + 5)
                card->expiry = t.mid(d + 1, 4);
        }
    }
    const QByteArray expiry = find(tlv, 0x5F24);
    if (expiry.size() >= 2)
        card->expiry = expiry.left(2).toHex();
    const QByteArray holder = find(tlv, 0x5F20);
    if (card->holder.isEmpty() && !holder.isEmpty())
        card->holder = printable(holder.left(26));
}

}  // namespace

Failure readEmv(const Apdu& apdu, BankCard* card, QString* why)
{
    // The applications on the card: PPSE (contactless), else PSE (contact), else the list.
    QList<QByteArray> aids;
    QByteArray r = select(apdu, "2PAY.SYS.DDF01");
    if (r.isEmpty()) {
        *why = QStringLiteral("the card does not answer");
        return Failure::ReadError;
    }
    if (statusOf(r) == 0x9000) {
        QList<Tlv> tlv;
        parseTlv(r.chopped(2), &tlv);
        aids = applicationsOf(tlv);
    }
    if (aids.isEmpty()) {
        r = select(apdu, "1PAY.SYS.DDF01");
        if (statusOf(r) == 0x9000) {
            QList<Tlv> fci;
            parseTlv(r.chopped(2), &fci);
            const QByteArray sfi = find(fci, 0x88);
            for (int record = 1; !sfi.isEmpty() && record <= 16; ++record) {
                const QByteArray rec = readRecord(apdu, quint8(sfi[0]) & 0x1F, record);
                if (statusOf(rec) != 0x9000)
                    break;
                QList<Tlv> tlv;
                parseTlv(rec.chopped(2), &tlv);
                aids += applicationsOf(tlv);
            }
        }
    }
    const bool fromDirectory = !aids.isEmpty();
    if (!fromDirectory) {
        for (const char* aid : kKnownAids)
            aids.append(QByteArray::fromHex(aid));
    }

    for (const QByteArray& aid : aids) {
        r = select(apdu, aid);
        if (r.isEmpty()) {
            *why = QStringLiteral("the card stopped answering");
            return Failure::ReadError;
        }
        if (statusOf(r) != 0x9000)
            continue;
        QList<Tlv> fci;
        parseTlv(r.chopped(2), &fci);
        const QByteArray chosen = find(fci, 0x84).isEmpty() ? aid : find(fci, 0x84);
        const QByteArray data = pdolData(find(fci, 0x9F38));
        QByteArray gpo = QByteArray::fromHex("80A80000") + char(data.size() + 2) + char(0x83) + char(data.size()) + data + char(0);
        r = exchange(apdu, gpo);
        if (statusOf(r) != 0x9000) {
            *why = QStringLiteral("GET PROCESSING OPTIONS refused (%1)").arg(QString::fromLatin1(r.right(2).toHex()));
            continue;
        }
        QList<Tlv> options;
        parseTlv(r.chopped(2), &options);
        take(options, card);
        QByteArray afl = find(options, 0x94);
        const QByteArray format1 = find(options, 0x80);
        if (afl.isEmpty() && format1.size() > 2)
            afl = format1.mid(2);
        int reads = 0;
        for (int i = 0; i + 4 <= afl.size() && reads < 64; i += 4) {
            const int sfi = quint8(afl[i]) >> 3, first = quint8(afl[i + 1]), last = quint8(afl[i + 2]);
            if (sfi < 1 || sfi > 30 || first < 1 || last < first)
                continue;
            for (int record = first; record <= last && reads < 64; ++record, ++reads) {
                const QByteArray rec = readRecord(apdu, sfi, record);
                if (rec.isEmpty()) {
                    *why = QStringLiteral("the card stopped answering");
                    return Failure::ReadError;
                }
                if (statusOf(rec) != 0x9000)
                    continue;
                QList<Tlv> tlv;
                parseTlv(rec.chopped(2), &tlv);
                take(tlv, card);
            }
        }
        // A card number is 12 to 19 decimal digits; anything else came from a confused card.
        const auto allDigits = [](const QByteArray& b) { return std::all_of(b.begin(), b.end(), [](char c) { return c >= '0' && c <= '9'; }); };
        if (card->expiry.size() != 4 || !allDigits(card->expiry))
            card->expiry.clear();
        if (card->pan.size() < 12 || card->pan.size() > 19 || !allDigits(card->pan)) {
            *why = QStringLiteral("application %1 gives no card number").arg(QString::fromLatin1(aid.toHex()));
            card->pan.clear();
            continue;
        }
        card->aid = chosen.toHex().toUpper();
        return Failure::None;
    }
    if (why->isEmpty())
        *why = QStringLiteral("no payment application on the card");
    return Failure::ReadError;
}

QStringList readers()
{
    Shared& s = shared();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!s.open) {
            if (SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &s.context) != SCARD_S_SUCCESS)
                return QStringList();   // no PC/SC service: no real readers
            s.open = true;
        }
        DWORD length = 0;
        LONG rv = SCardListReaders(s.context, nullptr, nullptr, &length);
        if (rv == LONG(SCARD_E_NO_READERS_AVAILABLE))
            return QStringList();
        QByteArray names;
        if (rv == SCARD_S_SUCCESS) {
            names.resize(int(length));
            rv = SCardListReaders(s.context, nullptr, names.data(), &length);
        }
        if (rv == SCARD_S_SUCCESS) {
            QStringList list;
            for (const QByteArray& n : names.split('\0')) {
                if (!n.isEmpty())
                    list.append(QString::fromUtf8(n));
            }
            return list;
        }
        // The service went away or was restarted: a fresh context, once.
        SCardReleaseContext(s.context);
        s.open = false;
    }
    return QStringList();
}

bool isContactless(const QString& reader)
{
    const QString pattern = profileText(QStringLiteral("pcsc.contactless"), QStringLiteral("PICC|Contactless|CL"));
    const QRegularExpression re(pattern, QRegularExpression::CaseInsensitiveOption);
    if (!re.isValid()) {
        logLine(QStringLiteral("device profile %1: key \"pcsc.contactless\" is not a regular expression; using the default")
                    .arg(profileSource()));
        return reader.contains(QRegularExpression(QStringLiteral("PICC|Contactless|CL"), QRegularExpression::CaseInsensitiveOption));
    }
    return reader.contains(re);
}

bool release()
{
    Shared& s = shared();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.open)
        return false;
    SCardReleaseContext(s.context);
    s.open = false;
    return true;
}

int timeoutMs()
{
    return qBound(100, int(profileNumber(QStringLiteral("pcsc.timeoutMs"), 5000)), 60000);
}

namespace {

// Runs work on the reader's card within ms, work getting a transmit function and the outcome to
// fill. A reader or card error, on connecting or during the work, is what the outcome says.
template <class Work>
Outcome withCard(const QString& reader, int ms, Work work)
{
    const QByteArray name = reader.toUtf8();
    return bounded<Outcome>(ms, [name, work] {
        Outcome out;
        Session session;
        LONG rv = session.connect(name);
        if (rv == SCARD_S_SUCCESS) {
            out.why.clear();
            work([&](const QByteArray& c) { return session.transmit(c, &rv); }, out);
        }
        if (rv != SCARD_S_SUCCESS && out.failure != Failure::None) {
            out.failure = failureOf(rv);
            out.why = errorText(rv);
        }
        return out;
    }, Outcome{});
}

}  // namespace

Failure readUid(const QString& reader, int ms, QByteArray* uid, QString* why)
{
    const Outcome o = withCard(reader, ms, [](const auto& transmit, Outcome& out) {
        const QByteArray r = exchange(transmit, QByteArray::fromHex("FFCA000000"));
        if (statusOf(r) != 0x9000 || r.size() < 6 || r.size() > 12) {
            out.failure = Failure::ReadError;
            out.why = QStringLiteral("GET DATA answered %1 bytes: %2").arg(r.size()).arg(QString::fromLatin1(r.left(16).toHex()));
            return;
        }
        out.failure = Failure::None;
        out.uid = r.chopped(2);
    });
    *uid = o.uid;
    *why = o.why;
    return o.failure;
}

Failure readBankCard(const QString& reader, int ms, BankCard* card, QString* why)
{
    const Outcome o = withCard(reader, ms, [](const auto& transmit, Outcome& out) {
        out.failure = readEmv(transmit, &out.card, &out.why);
    });
    *card = o.card;
    *why = o.why;
    return o.failure;
}

}  // namespace portable::cards::pcsc
