// Card reader commands down to the library: the argument and fallback rules through the call
// trace, the ID card worker, the simulated cards' texts, voice prompts and a PC/SC card.
#include "devicelib/cardreader.h"
#include "devicelib/portable/core.h"
#include "dispatch/messagerun.h"
#include "fixture.h"
#include "identity/readidcardthread.h"
#include "transport/websocketservermanager.h"

#include <QJsonDocument>
#include <QLocalSocket>
#include <QScopeGuard>
#include <QProcess>
#include <QTcpSocket>
#include <QTest>
#include <QtEndian>

#include <arpa/inet.h>
#include <winscard.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <thread>

namespace {

// Rows write JSON with ' for ": "{'ReadCard':[null]}".
QByteArray q(const char* s) { return QByteArray(s).replace('\'', '"'); }

// The calls of a trace as fn(args), the way rows write them.
QString calls(const Trace& trace)
{
    QStringList r;
    for (const QJsonObject& c : trace.calls()) {
        const QByteArray args = QJsonDocument(c.value("args").toArray()).toJson(QJsonDocument::Compact);
        r << c.value("fn").toString() + "(" + QString::fromUtf8(args.mid(1, args.size() - 2)) + ")";
    }
    return r.join(' ');
}

QJsonObject parsed(const QString& text)
{
    QJsonParseError e;
    const QJsonDocument d = QJsonDocument::fromJson(text.toUtf8(), &e);
    return e.error == QJsonParseError::NoError ? d.object() : QJsonObject{{"unparsable", text}};
}

bool isAscii(const QString& s)
{
    return std::all_of(s.begin(), s.end(), [](QChar c) { return c.unicode() < 0x80; });
}

// A card on vpcd's virtual reader (TCP, port 35963): each message a 2-byte big-endian length
// and a payload; 1-byte payloads are control (0 off, 1 on, 2 reset, 4 ATR), the rest APDUs.
// It answers as a contact bank card without PPSE (PSE directory, 61xx and 6Cxx on the way),
// answers only the ATR (mute), or answers every command with 10 000 bytes of nonsense.
class VirtualCard {
public:
    enum Kind { Bank, Mute, Garbage, Contactless };
    explicit VirtualCard(Kind kind) : m_kind(kind) { m_thread = std::thread([this] { serve(); }); }
    ~VirtualCard()
    {
        m_stop = true;
        ::shutdown(m_fd.load(), SHUT_RDWR);
        m_thread.join();
        ::close(m_fd.load());   // only now: its number cannot have gone to another socket meanwhile
    }
    bool connected() const { return m_connected; }

private:
    void serve()
    {
        for (int attempt = 0; attempt < 100 && !m_stop && !m_connected; ++attempt) {
            const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(35963);
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
                m_fd = fd;
                m_connected = true;
                break;
            }
            ::close(fd);
            QThread::msleep(50);
        }
        QByteArray in;
        while (!m_stop && m_connected) {
            if (!readAll(2, &in))
                break;
            const int length = qFromBigEndian<quint16>(in.constData());
            if (!readAll(length, &in))
                break;
            QByteArray out = answer(in);
            if (out.isEmpty())
                continue;
            out.prepend(char(out.size() & 0xff)).prepend(char(out.size() >> 8));
            if (::write(m_fd, out.constData(), size_t(out.size())) != out.size())
                break;
        }
    }

    bool readAll(int n, QByteArray* into)
    {
        into->resize(n);
        for (int got = 0; got < n;) {
            const ssize_t r = ::read(m_fd, into->data() + got, size_t(n - got));
            if (r <= 0)
                return false;
            got += int(r);
        }
        return true;
    }

    static QByteArray tlv(const char* tag, const QByteArray& value)
    {
        return QByteArray::fromHex(tag) + char(value.size()) + value;
    }

    QByteArray answer(const QByteArray& in)
    {
        if (in.size() == 1)
            return in[0] == 4 ? QByteArray::fromHex("3B8F8001804F0CA000000306030001000000006A") : QByteArray();
        if (m_kind == Mute)
            return QByteArray();
        if (m_kind == Garbage)   // 10 000 bytes of nonsense, "successfully"
            return QByteArray(10000, char(0x5A)) + QByteArray::fromHex("9000");
        const QByteArray ok = QByteArray::fromHex("9000");
        if (m_kind == Contactless)
            return contactless(in.toHex().toUpper(), ok);
        const QByteArray aid = QByteArray::fromHex("A000000333010101");
        const QByteArray directory = tlv("70", tlv("61", tlv("4F", aid) + tlv("50", "UDEBIT") + tlv("87", "\x01")));
        const QByteArray apdu = in.toHex().toUpper();
        if (apdu == "FFCA000000")
            return QByteArray::fromHex("11223344") + ok;
        if (apdu == "00A404000E" + QByteArray("2PAY.SYS.DDF01").toHex().toUpper() + "00")   // no PPSE
            return QByteArray::fromHex("6A82");
        if (apdu == "00A404000E" + QByteArray("1PAY.SYS.DDF01").toHex().toUpper() + "00")   // PSE: directory in SFI 1
            return tlv("6F", tlv("84", "1PAY.SYS.DDF01") + tlv("A5", tlv("88", "\x01"))) + ok;
        if (apdu == "00B2010C00")   // the length first: 6Cxx
            return QByteArray::fromHex("6C") + char(directory.size());
        if (apdu == "00B2010C" + QByteArray(1, char(directory.size())).toHex().toUpper())
            return directory + ok;
        if (apdu == "00A4040008A00000033301010100") {   // the rest with GET RESPONSE: 61xx
            m_pending = tlv("6F", tlv("84", aid) + tlv("A5", tlv("50", "UDEBIT") + tlv("9F38", QByteArray::fromHex("9F66049F02069F37045F2A02"))));
            return QByteArray::fromHex("61") + char(m_pending.size());
        }
        if (apdu == "00C00000" + QByteArray(1, char(m_pending.size())).toHex().toUpper())
            return m_pending + ok;
        if (apdu.startsWith("80A80000128310") && apdu.size() == 2 * 24)   // 16 bytes of PDOL data
            return tlv("77", tlv("82", QByteArray::fromHex("0080")) + tlv("94", QByteArray::fromHex("10010200"))) + ok;
        if (apdu == "00B2011400")
            return tlv("70", tlv("5F20", "ZHANG/SAN") + tlv("57", QByteArray::fromHex("6217000010012345678D29122010000000000F"))) + ok;
        if (apdu == "00B2021400")
            return tlv("70", tlv("5A", QByteArray::fromHex("6217000010012345678F")) + tlv("5F24", QByteArray::fromHex("291231"))) + ok;
        if (apdu.startsWith("00B2"))
            return QByteArray::fromHex("6A83");
        return QByteArray::fromHex("6D00");
    }

    // A contactless card: PPSE, a PDOL of the terminal's qualifiers alone, options in format 1,
    // and its number and expiry in the track-2 equivalent only.
    QByteArray contactless(const QByteArray& apdu, const QByteArray& ok)
    {
        const QByteArray aid = QByteArray::fromHex("A000000333010102");
        if (apdu == "FFCA000000")
            return QByteArray::fromHex("0A0B0C0D") + ok;
        if (apdu == "00A404000E" + QByteArray("2PAY.SYS.DDF01").toHex().toUpper() + "00")
            return tlv("6F", tlv("84", "2PAY.SYS.DDF01") + tlv("A5", tlv("BF0C", tlv("61", tlv("4F", aid) + tlv("87", "\x01"))))) + ok;
        if (apdu == "00A4040008A00000033301010200")
            return tlv("6F", tlv("84", aid) + tlv("A5", tlv("9F38", QByteArray::fromHex("9F6604")))) + ok;
        if (apdu == "80A800000683042600008000")
            return tlv("80", QByteArray::fromHex("0080" "08010100")) + ok;
        if (apdu == "00B2010C00")
            return tlv("70", tlv("57", QByteArray::fromHex("6214830100200300D3006201000000000F")) + tlv("5F20", "WANG/FANG")) + ok;
        return QByteArray::fromHex("6A82");
    }

    Kind m_kind;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_connected{false};
    std::atomic<int> m_fd{-1};
    QByteArray m_pending;
    std::thread m_thread;
};

// Waits until pcscd sees a card in reader (it polls the driver for one).
bool waitForCard(const char* reader)
{
    SCARDCONTEXT context;
    if (SCardEstablishContext(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &context) != SCARD_S_SUCCESS)
        return false;
    SCARD_READERSTATE state{};
    state.szReader = reader;
    state.dwCurrentState = SCARD_STATE_UNAWARE;
    bool present = false;
    for (int i = 0; i < 50 && !present; ++i) {
        if (SCardGetStatusChange(context, 200, &state, 1) == SCARD_S_SUCCESS)
            state.dwCurrentState = state.dwEventState;
        present = state.dwEventState & SCARD_STATE_PRESENT;
    }
    SCardReleaseContext(context);
    return present;
}

}  // namespace

class TestCards : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<MessageRun> m_run;
    std::unique_ptr<PagePair> m_page;
    QTemporaryDir m_dir;

    QString run(const QString& command, int timeoutMs = 3000) { return runCommand(*m_run, *m_page, command, timeoutMs); }

private slots:
    void initTestCase()
    {
        m_run = std::make_unique<MessageRun>();
        m_page = std::make_unique<PagePair>();
        QVERIFY(m_page->isConnected());
    }

    // No PC/SC reader counts unless a test starts its own: the sample cards answer.
    void init()
    {
        portable::loadProfileText(q("{'cards':{'simulate':true}}"));
        m_page->makeCurrent();
    }

    // Each command's argument rules, defaults and fallbacks, as library calls and replies.
    void commands_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QString>("calls");
        auto row = [](const char* name, const char* script, const char* command, const char* reply, const char* calls) {
            QTest::newRow(name) << q(script) << QString(command) << QString::fromUtf8(q(reply)) << QString::fromUtf8(q(calls));
        };
        row("VX ID read", "{'ReadSFZCardVX':[{'out':['A']}]}", "sIDCardReaderVX()", "BeginsIDCardReaderVXAEndsIDCardReaderVX", "ReadSFZCardVX('<out>')");
        row("ID message", "{'readIDMsg_qt':[{'out':['B']}]}", "readIDMsg(x)", "BeginreadIDMsgBEndreadIDMsg", "readIDMsg_qt('<out>')");
        row("ID message VX", "{'readIDMsgVX_qt':[null]}", "readIDMsgVX()", "BeginreadIDMsgVXEndreadIDMsgVX", "readIDMsgVX_qt('<out>')");
        row("noPasam default 1", "{'iReadCardBas_noPasam_qt':[{'out':['S']}]}", "iReadCardBas_noPasam()", "BeginiReadCardBas_noPasamSEndiReadCardBas_noPasam", "iReadCardBas_noPasam_qt(1,'<out>')");
        row("noPasam 7", "{'iReadCardBas_noPasam_qt':[null]}", "iReadCardBas_noPasam(7)", "BeginiReadCardBas_noPasamEndiReadCardBas_noPasam", "iReadCardBas_noPasam_qt(7,'<out>')");
        row("noPasam abc gives 0", "{'iReadCardBas_noPasam_qt':[null]}", "iReadCardBas_noPasam(abc)", "BeginiReadCardBas_noPasamEndiReadCardBas_noPasam", "iReadCardBas_noPasam_qt(0,'<out>')");
        row("noPasamVX stub", "{}", "iReadCardBas_noPasamVX(3)", "BeginiReadCardBas_noPasamVXEndiReadCardBas_noPasamVX", "");
        row("noPasamVX stub, text", "{}", "iReadCardBas_noPasamVX(abc,1)", "BeginiReadCardBas_noPasamVXEndiReadCardBas_noPasamVX", "");
        row("BasEx default 3", "{'ReadCardBasExVX':[{'out':['E']}]}", "iReadCardBasEx()", "BeginiReadCardBasExEEndiReadCardBasEx", "ReadCardBasExVX('<out>',3)");
        row("BasEx abc gives 0", "{'ReadCardBasExVX':[null]}", "iReadCardBasEx(abc)", "BeginiReadCardBasExEndiReadCardBasEx", "ReadCardBasExVX('<out>',0)");
        row("W BasEx module, default 1", "{'GetDeviceStatus_dc':[true],'ReadSBKCardBas_DK':[{'ret':true,'out':['{x}']}]}", "WReadCardBasEx()",
            "BeginWReadCardBasEx{'lRet':0,'outInfo':'{x}'}EndWReadCardBasEx", "GetDeviceStatus_dc() ReadSBKCardBas_DK(1,'<out>')");
        row("W BasEx module fails, abc", "{'GetDeviceStatus_dc':[true],'ReadSBKCardBas_DK':[{'ret':false,'out':['no']}]}", "WReadCardBasEx(abc)",
            "BeginWReadCardBasEx{'lRet':1,'outInfo':'no'}EndWReadCardBasEx", "GetDeviceStatus_dc() ReadSBKCardBas_DK(0,'<out>')");
        row("W BasEx without module: type 3", "{'GetDeviceStatus_dc':[false],'ReadCardBasExVX':[{'out':['T']}]}", "WReadCardBasEx(5)",
            "BeginWReadCardBasExTEndWReadCardBasEx", "GetDeviceStatus_dc() ReadCardBasExVX('<out>',3)");
        row("SFZ first reader, code '0'", "{'ReadSFZCardBas_VX':[{'out':['{\\'code\\':\\'0\\'}']}]}", "WReadSFZCardBas()",
            "BeginWReadSFZCardBas{'code':'0'}EndWReadSFZCardBas", "ReadSFZCardBas_VX('<out>')");
        row("SFZ code '00' is 0", "{'ReadSFZCardBas_VX':[{'out':['{\\'code\\':\\'00\\'}']}]}", "WReadSFZCardBas()",
            "BeginWReadSFZCardBas{'code':'00'}EndWReadSFZCardBas", "ReadSFZCardBas_VX('<out>')");
        row("SFZ code '' is 0", "{'ReadSFZCardBas_VX':[{'out':['{\\'code\\':\\'\\'}']}]}", "WReadSFZCardBas()",
            "BeginWReadSFZCardBas{'code':''}EndWReadSFZCardBas", "ReadSFZCardBas_VX('<out>')");
        row("SFZ code number 0 falls back", "{'ReadSFZCardBas_VX':[{'out':['{\\'code\\':0}']}],'ReadCard':['{\\'result\\':1}']}", "WReadSFZCardBas()",
            "BeginWReadSFZCardBas{'result':1}EndWReadSFZCardBas", "ReadSFZCardBas_VX('<out>') ReadCard(null,null)");
        row("SFZ code true falls back", "{'ReadSFZCardBas_VX':[{'out':['{\\'code\\':true}']}],'ReadCard':['{\\'result\\':-2}']}", "WReadSFZCardBas()",
            "BeginWReadSFZCardBas{'result':-2}EndWReadSFZCardBas", "ReadSFZCardBas_VX('<out>') ReadCard(null,null)");
        row("SFZ code '1', result '1' text: third", "{'ReadSFZCardBas_VX':[{'out':['{\\'code\\':\\'1\\'}']}],'ReadCard':['{\\'result\\':\\'1\\'}'],'ReadSFZCardBas_DK':[{'out':['D']}]}",
            "WReadSFZCardBas()", "BeginWReadSFZCardBasDEndWReadSFZCardBas", "ReadSFZCardBas_VX('<out>') ReadCard(null,null) ReadSFZCardBas_DK('<out>')");
        row("SFZ garbage, NULL, third fails too", "{'ReadSFZCardBas_VX':[{'out':['[1]']}],'ReadCard':[null],'ReadSFZCardBas_DK':[null]}",
            "WReadSFZCardBas()", "BeginWReadSFZCardBasEndWReadSFZCardBas", "ReadSFZCardBas_VX('<out>') ReadCard(null,null) ReadSFZCardBas_DK('<out>')");
        row("ReadCard(x): NULL", "{'ReadCard':['R']}", "ReadCard(x)", "BeginReadCardREndReadCard", "ReadCard(null,null)");
        row("ReadCard(): NULL", "{'ReadCard':[null]}", "ReadCard()", "BeginReadCardEndReadCard", "ReadCard(null,null)");
        row("ReadCard(a,b)", "{'ReadCard':['R']}", "ReadCard(a,b)", "BeginReadCardREndReadCard", "ReadCard(null,'b')");
        row("ReadCard(a,)", "{'ReadCard':['R']}", "ReadCard(a,)", "BeginReadCardREndReadCard", "ReadCard(null,'')");
        row("ReadCard(a,b,c)", "{'ReadCard':['R']}", "ReadCard(a,b,c)", "BeginReadCardREndReadCard", "ReadCard(null,'b')");
        row("bank default 2", "{'GetBankCardInfoVX':[{'ret':true,'out':['K']}]}", "GetBankCardInfo()", "BeginGetBankCardInfoKEndGetBankCardInfo", "GetBankCardInfoVX('<out>',2)");
        row("bank 2 retries 0", "{'GetBankCardInfoVX':[false,{'ret':true,'out':['K']}]}", "GetBankCardInfo(2)", "BeginGetBankCardInfoKEndGetBankCardInfo", "GetBankCardInfoVX('<out>',2) GetBankCardInfoVX('<out>',0)");
        row("bank 5 retries 2", "{'GetBankCardInfoVX':[false,{'ret':true,'out':['K']}]}", "GetBankCardInfo(5)", "BeginGetBankCardInfoKEndGetBankCardInfo", "GetBankCardInfoVX('<out>',5) GetBankCardInfoVX('<out>',2)");
        row("bank 0 retries 2, both fail", "{'GetBankCardInfoVX':[{'ret':false,'out':['e1']},{'ret':false,'out':['e2']}]}", "GetBankCardInfo(0)",
            "BeginGetBankCardInfoEndGetBankCardInfo", "GetBankCardInfoVX('<out>',0) GetBankCardInfoVX('<out>',2)");
        row("bank abc gives 0", "{'GetBankCardInfoVX':[false,false]}", "GetBankCardInfo(abc)", "BeginGetBankCardInfoEndGetBankCardInfo", "GetBankCardInfoVX('<out>',0) GetBankCardInfoVX('<out>',2)");
        row("open USB port", "{'bOpenIDCardUSBPort':[true]}", "bOpenIDCardReader(USB1,x)", "BeginbOpenIDCardReadertrueEndbOpenIDCardReader", "bOpenIDCardUSBPort('USB1,x')");
        row("open unknown reader", "{}", "bOpenIDCardReader(No Such Reader)", "BeginbOpenIDCardReaderfalseEndbOpenIDCardReader", "bOpenIDCardUSBPort('No Such Reader')");
        row("open serial device", "{}", "bOpenIDCardSerialPort(/dev/null)", "BeginbOpenIDCardSerialPorttrueEndbOpenIDCardSerialPort", "openIDCardSerialPort('/dev/null')");
        row("open missing serial", "{}", "bOpenIDCardSerialPort(/dev/ttyNONE9)", "BeginbOpenIDCardSerialPortfalseEndbOpenIDCardSerialPort", "openIDCardSerialPort('/dev/ttyNONE9')");
        row("close, nothing open", "{}", "bCloseIDCardDevie()", "BeginbCloseIDCardDevietrueEndbCloseIDCardDevie", "bCloseIDCardDevie()");
        row("SAM status scripted", "{'bgetSAMStatus':[false]}", "bGetSAMStatus()", "BeginbGetSAMStatusfalseEndbGetSAMStatus", "bgetSAMStatus()");
        row("SAM id NULL", "{'GetSAMID':[null]}", "GetSAMID()", "BeginGetSAMIDEndGetSAMID", "GetSAMID()");
        row("chip serial", "{'sReadIDCardSnr':['0102']}", "sReadIDCardSnr()", "BeginsReadIDCardSnr0102EndsReadIDCardSnr", "sReadIDCardSnr()");
        row("IC serial", "{'iReadICCardSnr':[-5]}", "iReadICCardSnr()", "BeginiReadICCardSnr-5EndiReadICCardSnr", "iReadICCardSnr()");
        row("voice abc gives 0", "{}", "bPlayVoice(abc)", "BeginbPlayVoicefalseEndbPlayVoice", "bPlayVoice(0)");
        row("voice, scripted", "{'bPlayVoice':[true]}", "bPlayVoice(3)", "BeginbPlayVoicetrueEndbPlayVoice", "bPlayVoice(3)");
    }

    void commands()
    {
        QFETCH(QByteArray, script);
        QFETCH(QString, command);
        QFETCH(QString, reply);
        QFETCH(QString, calls);
        applyScript(script);
        Trace trace;
        QCOMPARE(run(command), reply);
        QCOMPARE(::calls(trace), calls);
    }

    // Three requests: three reads and three replies, in order, to every page; a request counted
    // while the worker is between reads is served without another wake-up.
    void idCardWorker()
    {
        WebSocketServerManager mgr(QStringLiteral("boreaTcp"), QWebSocketServer::NonSecureMode);
        QVERIFY(mgr.websocke_server_start(QHostAddress(QHostAddress::LocalHost), 0));
        Page a, b;
        QVERIFY(a.open(mgr.serverPort()) && b.open(mgr.serverPort()));
        QVERIFY(waitFor([&] { return mgr.clientCount() == 2; }));
        applyScript(q("{'sIDCardReader':['{\\'n\\':1}','{\\'n\\':2}','{\\'n\\':3}','late']}"));
        Trace trace;
        for (int i = 0; i < 3; ++i)
            a.ws.sendTextMessage(QStringLiteral("sIDCardReader()"));
        const auto cardReplies = [](Page& p) { return p.got.filter(QStringLiteral("sIDCardReader")); };
        const QStringList expected{q("BeginsIDCardReader{'n':1}EndsIDCardReader"), q("BeginsIDCardReader{'n':2}EndsIDCardReader"),
                                   q("BeginsIDCardReader{'n':3}EndsIDCardReader")};
        QVERIFY(waitFor([&] { return cardReplies(a).size() == 3 && cardReplies(b).size() == 3; }));
        QCOMPARE(cardReplies(a), expected);
        QCOMPARE(cardReplies(b), expected);
        QCOMPARE(trace.functions(), (QStringList{"sIDCardReader", "sIDCardReader", "sIDCardReader"}));

        // Counted from the worker's own thread just after its read: served all the same.
        bool once = true;
        QMetaObject::Connection c = connect(ReadIdCardThread::instance(), &WorkerThread::sig_msg, this, [&once](QByteArray) {
            if (std::exchange(once, false))
                ReadIdCardThread::instance()->readCard();
        }, Qt::DirectConnection);
        a.got.clear();
        a.ws.sendTextMessage(QStringLiteral("sIDCardReader()"));
        QVERIFY(waitFor([&] { return cardReplies(a).size() == 2; }));
        disconnect(c);
        QCOMPARE(cardReplies(a).first(), QStringLiteral("BeginsIDCardReaderlateEndsIDCardReader"));
        // The sample card, read for real: its name survives the worker's 8-bit conversion.
        QCOMPARE(parsed(between(cardReplies(a).last(), "sIDCardReader")).value("name").toString(), QString::fromUtf8("李晓红"));
        QCOMPARE(trace.functions().size(), 5);
    }

    // The sample cards: ASCII texts a page parses; a Chinese name survives every path.
    void cardTexts_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("key");   // where the name is; empty: the text has no name
        for (const char* c : {"sIDCardReaderVX()", "readIDMsg()", "readIDMsgVX()", "WReadSFZCardBas()", "ReadCard(a,b)",
                              "iReadCardBas_noPasam(2)", "iReadCardBasEx()"})
            QTest::newRow(c) << QString(c) << "name";
        QTest::newRow("bank card") << "GetBankCardInfo(1)" << QString();
    }

    void cardTexts()
    {
        QFETCH(QString, command);
        QFETCH(QString, key);
        const QString name = QString::fromUtf8("欧阳娜娜\xF0\xA0\x80\x80");   // and a character beyond 16 bits
        portable::loadProfileText(q("{'cards':{'simulate':true,'idCard':{'name':'%1'},'socialSecurityCard':{'name':'%1'}}}").replace("%1", name.toUtf8()));
        const QString text = between(run(command), command.left(command.indexOf('(')));
        QVERIFY2(isAscii(text), qPrintable(text));
        const QJsonObject o = parsed(text);
        if (!key.isEmpty())
            QCOMPARE(o.value(key).toString(), name);
        QVERIFY(o.value("code").toString() == "0" || o.value("result").toInt() == 1);
    }

    // The sample ID card: a valid ID number and the chip's 102 x 126 portrait.
    void sampleIdCard()
    {
        char* raw = ::sIDCardReader();
        const QJsonObject o = parsed(QString::fromLatin1(raw));
        std::free(raw);
        const QString id = o.value("idNumber").toString();
        QCOMPARE(id.size(), 18);
        static const int weights[] = {7, 9, 10, 5, 8, 4, 2, 1, 6, 3, 7, 9, 10, 5, 8, 4, 2};
        int sum = 0;
        for (int i = 0; i < 17; ++i)
            sum += id[i].digitValue() * weights[i];
        QCOMPARE(id[17], QLatin1Char("10X98765432"[sum % 11]));
        QCOMPARE(jpegSize(QByteArray::fromBase64(o.value("photo").toString().toLatin1())), QSize(102, 126));
        QCOMPARE(o.value("birthDate").toString(), id.mid(6, 8));
    }

    // Profile and failure forms: no card, unknown type, the SAM, the IC card's UID.
    void profileCards_data()
    {
        QTest::addColumn<QByteArray>("profile");
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("reply");
        auto row = [](const char* name, const char* profile, const char* command, const char* reply) {
            QTest::newRow(name) << q(profile) << QString(command) << QString::fromUtf8(q(reply));
        };
        row("no ID card", "{'idCard':null}", "sIDCardReaderVX()", "BeginsIDCardReaderVX{'code':'1','error':'no card'}EndsIDCardReaderVX");
        row("no ID card, ReadCard", "{'idCard':null}", "ReadCard()", "BeginReadCard{'result':0,'error':'no card'}EndReadCard");
        row("no ID card, no serial", "{'idCard':null}", "sReadIDCardSnr()", "BeginsReadIDCardSnrEndsReadIDCardSnr");
        row("chip serial", "{'idCard':{'serial':'0A0B'}}", "sReadIDCardSnr()", "BeginsReadIDCardSnr0A0BEndsReadIDCardSnr");
        row("no social-security card", "{'socialSecurityCard':null}", "iReadCardBasEx(1)", "BeginiReadCardBasEx{'code':'1','error':'no card'}EndiReadCardBasEx");
        row("no bank card", "{'bankCard':null}", "GetBankCardInfo()", "BeginGetBankCardInfoEndGetBankCardInfo");
        row("bank card, unknown type retried", "{'bankCard':{'cardNo':'6222'}}", "GetBankCardInfo(9)",
            "BeginGetBankCardInfo{'code':'0','cardNo':'6222','expiry':'2912','holder':'LI/XIAOHONG','aid':'A000000333010101','interface':'contactless'}EndGetBankCardInfo");
        row("IC card UID", "{}", "iReadICCardSnr()", "BeginiReadICCardSnr-725372255EndiReadICCardSnr");
        row("IC card UID from profile", "{'icCard':{'uid':'11223344AA'}}", "iReadICCardSnr()", "BeginiReadICCardSnr1144201745EndiReadICCardSnr");
        row("no IC card", "{'icCard':null}", "iReadICCardSnr()", "BeginiReadICCardSnr0EndiReadICCardSnr");
        row("SAM", "{}", "GetSAMID()", "BeginGetSAMID05.01-20231108-0012345678-2541069913EndGetSAMID");
        row("no SAM", "{'sam':{'present':false}}", "bGetSAMStatus()", "BeginbGetSAMStatusfalseEndbGetSAMStatus");
        row("SAM id from profile", "{'sam':{'id':'05.01-1'}}", "GetSAMID()", "BeginGetSAMID05.01-1EndGetSAMID");
        row("bad card key: the sample", "{'idCard':7}", "sReadIDCardSnr()", "BeginsReadIDCardSnr9F1C0A4B27D63E85EndsReadIDCardSnr");
        row("bad card field: the sample's", "{'idCard':{'serial':7}}", "sReadIDCardSnr()", "BeginsReadIDCardSnr9F1C0A4B27D63E85EndsReadIDCardSnr");
    }

    void profileCards()
    {
        QFETCH(QByteArray, profile);
        QFETCH(QString, command);
        QFETCH(QString, reply);
        LogCapture log(QStringLiteral("devicelib: device profile"));
        portable::loadProfileText("{\"cards\":" + profile.left(profile.size() - 1) + (profile.size() > 2 ? "," : "") + "\"simulate\":true}}");
        QCOMPARE(run(command), reply);
        // A bad key is named in the log, with the profile it came from.
        QCOMPARE(log.contains(QStringLiteral("<test>: key \"cards.idCard")), QByteArray(QTest::currentDataTag()).startsWith("bad"));
    }

    // Huge and binary arguments: the usual failure replies, never a crash.
    void badInput_data()
    {
        QTest::addColumn<QString>("command");
        QTest::addColumn<QString>("reply");
        const QString huge(100000, QLatin1Char('A'));
        const QString binary = QString::fromLatin1(QByteArray("\x01\xff\x00\x7f\xc3(", 6));
        QTest::newRow("huge reader name") << "bOpenIDCardReader(" + huge + ")" << "BeginbOpenIDCardReaderfalseEndbOpenIDCardReader";
        QTest::newRow("binary reader name") << "bOpenIDCardReader(" + binary + ")" << "BeginbOpenIDCardReaderfalseEndbOpenIDCardReader";
        QTest::newRow("huge serial device") << "bOpenIDCardSerialPort(/dev/" + huge + ")" << "BeginbOpenIDCardSerialPortfalseEndbOpenIDCardSerialPort";
        QTest::newRow("huge voice number") << "bPlayVoice(99999999999999999999)" << "BeginbPlayVoicefalseEndbPlayVoice";
        QTest::newRow("huge bank type") << "GetBankCardInfo(" + huge + ")" << "BeginGetBankCardInfo{\"code\":\"0\",\"cardNo\":\"6228480012345678903\","
            "\"expiry\":\"2912\",\"holder\":\"LI/XIAOHONG\",\"aid\":\"A000000333010101\",\"interface\":\"contact\"}EndGetBankCardInfo";
    }

    void badInput()
    {
        QFETCH(QString, command);
        QFETCH(QString, reply);
        QCOMPARE(run(command), reply);
        QVERIFY(run("ReadCard(a," + command + ")").startsWith("BeginReadCard{\"result\":1,"));
    }

    // Prompt 1 written to a WAV file is speech of plausible length; an unknown number writes nothing.
    void voice_data()
    {
        QTest::addColumn<int>("prompt");
        QTest::addColumn<bool>("played");
        QTest::newRow("place the ID card") << 1 << true;
        QTest::newRow("no prompt 9") << 9 << false;
        QTest::newRow("no prompt 0") << 0 << false;
        QTest::newRow("not a WAV file") << 2 << false;
    }

    void voice()
    {
        QFETCH(int, prompt);
        QFETCH(bool, played);
        const QString out = m_dir.filePath(QStringLiteral("prompt%1.wav").arg(prompt));
        QVERIFY(writeFile(m_dir.filePath("junk.wav"), "RIFF0000WAVEjunk"));
        portable::loadProfileText(q("{'voice':{'output':'%1','files':{'1':'%2','2':'%3'}}}")
                                      .replace("%1", out.toUtf8()).replace("%2", RVO_VOICE_DIR "/1.wav").replace("%3", m_dir.filePath("junk.wav").toUtf8()));
        QCOMPARE(run(QStringLiteral("bPlayVoice(%1)").arg(prompt)), QStringLiteral("BeginbPlayVoice%1EndbPlayVoice").arg(played ? "true" : "false"));
        const QByteArray wav = readFile(out);
        QCOMPARE(!wav.isEmpty(), played);
        if (!played)
            return;
        // 16-bit mono PCM from espeak-ng: between half a second and five seconds, and not silence.
        QCOMPARE(wav.mid(0, 4), QByteArray("RIFF"));
        const int rate = qFromLittleEndian<qint32>(wav.constData() + 24);
        const int data = wav.indexOf("data") + 8;
        const int samples = (wav.size() - data) / 2;
        QVERIFY2(samples > rate / 2 && samples < rate * 5, qPrintable(QString::number(samples)));
        qint64 loud = 0;
        for (int i = 0; i < samples; ++i)
            loud += qAbs(qFromLittleEndian<qint16>(wav.constData() + data + 2 * i)) > 2000;
        QVERIFY(loud > samples / 20);
    }

    // Played for real, on ALSA's null device (no PulseAudio to be found): the command answers at
    // once, a new prompt cuts off the one playing, a new profile stops it.
    void voiceThroughTheDevice()
    {
        QVERIFY(writeFile(m_dir.filePath("asound.conf"), "pcm.!default { type null }\n"));
        qputenv("ALSA_CONFIG_PATH", QFile::encodeName(m_dir.filePath("asound.conf")));
        qputenv("PULSE_SERVER", "unix:" + QFile::encodeName(m_dir.filePath("no-pulse")));
        portable::loadProfileText(q("{'voice':{'files':{'1':'" RVO_VOICE_DIR "/1.wav','2':'" RVO_VOICE_DIR "/2.wav'}}}"));
        QCOMPARE(run("bPlayVoice(1)"), QStringLiteral("BeginbPlayVoicetrueEndbPlayVoice"));
        QCOMPARE(run("bPlayVoice(2)"), QStringLiteral("BeginbPlayVoicetrueEndbPlayVoice"));
        portable::loadProfileText(QByteArray());
    }

    // A bank card, a mute card and no card on vpcd's virtual reader, under our own pcscd.
    void pcscCard_data()
    {
        QTest::addColumn<int>("card");   // 0 none, else 1 + VirtualCard::Kind
        QTest::addColumn<QString>("bank");
        QTest::addColumn<int>("uid");
        QTest::addColumn<QString>("contactCode");       // of the bank card texts on the contact reader
        QTest::addColumn<QString>("contactlessCode");   // and the contactless one
        QTest::newRow("bank card") << 1 << QString::fromUtf8(q("{'code':'0','cardNo':'6217000010012345678','expiry':'2912','holder':'ZHANG/SAN','aid':'A000000333010101','interface':'contact'}"))
                                   << 1144201745 << "0" << "2";
        QTest::newRow("mute card") << 2 << QString() << 0 << "4" << "2";
        QTest::newRow("no card") << 0 << QString() << 0 << "1" << "2";
        QTest::newRow("garbage answers") << 3 << QString() << 0 << "4" << "2";
        // The first virtual reader taken for contactless: no card on the contact one, then PPSE.
        QTest::newRow("contactless card") << 4 << QString::fromUtf8(q("{'code':'0','cardNo':'6214830100200300','expiry':'3006','holder':'WANG/FANG','aid':'A000000333010102','interface':'contactless'}"))
                                          << 218893066 << "1" << "0";
    }

    void pcscCard()
    {
        QFETCH(int, card);
        QFETCH(QString, bank);
        QFETCH(int, uid);
        QFETCH(QString, contactCode);
        QFETCH(QString, contactlessCode);
        if (::geteuid() != 0)
            QSKIP("pcscd needs root to start (its socket lives in /run/pcscd)");
        const QString driver = QStringLiteral("/usr/lib/pcsc/drivers/serial/libifdvpcd.so");
        if (!QFile::exists(driver))
            QSKIP("vpcd's driver is not installed (vsmartcard-vpcd)");
        QLocalSocket running;
        running.connectToServer(QStringLiteral("/run/pcscd/pcscd.comm"));
        if (running.waitForConnected(500))
            QSKIP("a PC/SC service already runs on this machine; its readers are not ours to use");
        QTemporaryDir conf;
        QVERIFY(writeFile(conf.filePath("vpcd"), "FRIENDLYNAME \"Virtual PCD\"\nDEVICENAME /dev/null:0x8C7B\n"
                                                 "LIBPATH " + driver.toUtf8() + "\nCHANNELID 0x8C7B\n"));
        QProcess pcscd;
        pcscd.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        pcscd.start(QStringLiteral("pcscd"), {"-f", "-c", conf.path()});
        if (!pcscd.waitForStarted())
            QSKIP("pcscd cannot be started here");
        const auto stop = qScopeGuard([&] {
            bCloseIDCardDevie();
            pcscd.terminate();
            if (!pcscd.waitForFinished(5000))
                pcscd.kill();
            pcscd.waitForFinished();
        });
        portable::loadProfileText(card == 1 + VirtualCard::Contactless ? q("{'pcsc':{'timeoutMs':1500,'contactless':'PCD 00 00'}}")
                                                                       : q("{'pcsc':{'timeoutMs':1500}}"));
        QVERIFY(waitFor([] { return bOpenIDCardUSBPort("Virtual PCD 00 00"); }));
        QVERIFY(bOpenIDCardUSBPort("USB1"));
        std::unique_ptr<VirtualCard> vc;
        if (card) {
            vc = std::make_unique<VirtualCard>(VirtualCard::Kind(card - 1));
            QVERIFY(waitFor([&] { return vc->connected(); }));
            QVERIFY(waitForCard("Virtual PCD 00 00"));
        }
        QCOMPARE(run("iReadICCardSnr()", 8000), QStringLiteral("BeginiReadICCardSnr%1EndiReadICCardSnr").arg(uid));
        QCOMPARE(run("GetBankCardInfo(1)", 8000), QStringLiteral("BeginGetBankCardInfo%1EndGetBankCardInfo").arg(bank));
        QString out;
        QCOMPARE(GetBankCardInfoVX(&out, 1), contactCode == "0");
        QCOMPARE(parsed(out).value("code").toString(), contactCode);
        QCOMPARE(GetBankCardInfoVX(&out, 2), contactlessCode == "0");
        QCOMPARE(parsed(out).value("code").toString(), contactlessCode);
    }
};

QTEST_MAIN(TestCards)
#include "tst_cards.moc"
