#include "support/ScriptedPeer.h"

#include "support/TestSupport.h"

#include <QHostAddress>
#include <QTcpSocket>
#include <QTimer>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>

namespace velatest {

namespace {

const QByteArray KHeadEnd("\r\n\r\n");
const QByteArray KContentLength("content-length:");

// Event-loop turns between the pieces of SendPieces: the first lets the
// client's socket notifier fire for the piece already in its queue, the
// second is a margin for a dispatcher that runs timers before sockets.
const int KTurnsBetweenPieces = 2;
// Polls of a waiting step run on zero-time timers at first and then once a
// millisecond, so a long wait does not keep the thread busy.
const int KFastPolls = 64;
const int KSlowPollMs = 1;

// Bytes the kernel still holds for the peer on this socket: not sent yet or
// not acknowledged yet. On loopback the acknowledgement comes as soon as the
// bytes are in the client's receive queue.
int KernelUnsent(qintptr fd)
{
    int pending = 0;
    if (fd < 0 || ::ioctl(static_cast<int>(fd), SIOCOUTQ, &pending) != 0)
        return 0;
    return pending;
}

// Content-Length of a request head; 0 when the field is missing or unreadable.
int ContentLengthOf(const QByteArray& head)
{
    const QByteArray lower = head.toLower();
    int at = 0;
    while ((at = lower.indexOf(KContentLength, at)) >= 0) {
        if (at == 0 || lower.at(at - 1) == '\n')
            break;
        at += KContentLength.size();
    }
    if (at < 0)
        return 0;
    int p = at + KContentLength.size();
    while (p < lower.size() && (lower.at(p) == ' ' || lower.at(p) == '\t'))
        ++p;
    qint64 value = 0;
    bool any = false;
    while (p < lower.size() && lower.at(p) >= '0' && lower.at(p) <= '9' && value < (1 << 30)) {
        value = value * 10 + (lower.at(p) - '0');
        any = true;
        ++p;
    }
    return any ? static_cast<int>(value) : 0;
}

}  // namespace

struct PeerScript::Step
{
    enum Kind
    {
        KExpect,
        KExpectUntil,
        KExpectRequest,
        KExpectClose,
        KSend,
        KSendComputed,
        KTurns,
        KWaitUntil,
        KDelay,
        KClose,
        KAbort,
        KStaySilent,
    };

    explicit Step(Kind k) : kind(k) {}

    Kind kind;
    int count = 0;     // bytes (Expect), turns (Turns), milliseconds (Delay)
    QByteArray bytes;  // marker (ExpectUntil) or data (Send)
    std::function<QByteArray(const QByteArray&)> make;
    std::function<bool()> condition;
};

namespace {

using Step = PeerScript::Step;

std::shared_ptr<const Step> MakeStep(Step::Kind kind, int count = 0, const QByteArray& bytes = QByteArray())
{
    auto step = std::make_shared<Step>(kind);
    step->count = count;
    step->bytes = bytes;
    return step;
}

}  // namespace

PeerScript& PeerScript::Expect(int count)
{
    m_steps.push_back(MakeStep(Step::KExpect, std::max(count, 0)));
    return *this;
}

PeerScript& PeerScript::ExpectUntil(const QByteArray& marker)
{
    m_steps.push_back(MakeStep(Step::KExpectUntil, 0, marker));
    return *this;
}

PeerScript& PeerScript::ExpectHead()
{
    return ExpectUntil(KHeadEnd);
}

PeerScript& PeerScript::ExpectRequest()
{
    m_steps.push_back(MakeStep(Step::KExpectRequest));
    return *this;
}

PeerScript& PeerScript::ExpectClose()
{
    m_steps.push_back(MakeStep(Step::KExpectClose));
    return *this;
}

PeerScript& PeerScript::Send(const QByteArray& bytes)
{
    m_steps.push_back(MakeStep(Step::KSend, 0, bytes));
    return *this;
}

PeerScript& PeerScript::SendPieces(const QList<QByteArray>& pieces)
{
    for (int i = 0; i < pieces.size(); ++i) {
        if (i > 0)
            m_steps.push_back(MakeStep(Step::KTurns, KTurnsBetweenPieces));
        Send(pieces.at(i));
    }
    return *this;
}

PeerScript& PeerScript::SendSplit(const QByteArray& bytes, const QList<int>& cuts)
{
    QList<QByteArray> pieces;
    int from = 0;
    for (int cut : cuts) {
        const int to = std::min(std::max(cut, from), static_cast<int>(bytes.size()));
        pieces.append(bytes.mid(from, to - from));
        from = to;
    }
    pieces.append(bytes.mid(from));
    return SendPieces(pieces);
}

PeerScript& PeerScript::SendSlowly(const QByteArray& bytes, int pieceSize)
{
    const int size = std::max(pieceSize, 1);
    QList<QByteArray> pieces;
    for (int at = 0; at < bytes.size(); at += size)
        pieces.append(bytes.mid(at, size));
    return SendPieces(pieces);
}

PeerScript& PeerScript::SendComputed(const std::function<QByteArray(const QByteArray&)>& make)
{
    auto step = std::make_shared<Step>(Step::KSendComputed);
    step->make = make;
    m_steps.push_back(step);
    return *this;
}

PeerScript& PeerScript::WaitUntil(const std::function<bool()>& condition)
{
    auto step = std::make_shared<Step>(Step::KWaitUntil);
    step->condition = condition;
    m_steps.push_back(step);
    return *this;
}

PeerScript& PeerScript::Delay(int ms)
{
    m_steps.push_back(MakeStep(Step::KDelay, std::max(ms, 0)));
    return *this;
}

PeerScript& PeerScript::Close()
{
    m_steps.push_back(MakeStep(Step::KClose));
    return *this;
}

PeerScript& PeerScript::Abort()
{
    m_steps.push_back(MakeStep(Step::KAbort));
    return *this;
}

PeerScript& PeerScript::StaySilent()
{
    m_steps.push_back(MakeStep(Step::KStaySilent));
    return *this;
}

// One accepted connection running its script.
class ScriptedPeer::Connection
{
public:
    Connection(QTcpSocket* socket, const PeerScript& script);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void Start() { Advance(); }

    QByteArray m_received;
    QList<QByteArray> m_captured;
    bool m_clientClosed = false;
    bool m_scriptDone = false;

private:
    // Results of one step.
    enum StepResult
    {
        KStepDone,     // go on with the next step
        KStepWaiting,  // an event will run the step again
        KScriptEnded,  // an ending step ran
    };

    void Advance();
    [[nodiscard]] StepResult RunStep(const Step& step);
    [[nodiscard]] StepResult RunTake(int available, int wanted);
    [[nodiscard]] StepResult RunWrite(const Step& step);
    [[nodiscard]] StepResult RunAbort();
    void NextStep();
    void ArmPoll();
    void ReadAll();
    void OnClientGone();
    bool Connected() const { return m_socket->state() == QAbstractSocket::ConnectedState; }

    std::unique_ptr<QTcpSocket> m_socket;
    std::vector<std::shared_ptr<const Step>> m_steps;
    size_t m_next = 0;
    int m_consumed = 0;  // bytes of m_received taken by reading steps

    // Progress of the current step.
    bool m_stepStarted = false;
    int m_timerTicks = 0;
    int m_polls = 0;

    QTimer m_timer;
    bool m_advancing = false;
    bool m_again = false;
    bool m_selfClosed = false;
};

ScriptedPeer::Connection::Connection(QTcpSocket* socket, const PeerScript& script)
    : m_socket(socket), m_steps(script.m_steps)
{
    m_socket->setParent(nullptr);
    m_timer.setSingleShot(true);
    // A coarse timer may fire up to 5 % early, too early for Delay.
    m_timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] {
        ++m_timerTicks;
        Advance();
    });
    QTcpSocket* s = m_socket.get();
    QObject::connect(s, &QTcpSocket::readyRead, s, [this] {
        ReadAll();
        Advance();
    });
    QObject::connect(s, &QTcpSocket::bytesWritten, s, [this] { Advance(); });
    QObject::connect(s, &QTcpSocket::errorOccurred, s, [this] { OnClientGone(); });
    QObject::connect(s, &QTcpSocket::disconnected, s, [this] { OnClientGone(); });
    // Bytes that came with the connection before the signals were connected.
    ReadAll();
}

ScriptedPeer::Connection::~Connection()
{
    m_timer.stop();
    m_timer.disconnect();
    m_socket->disconnect();
    m_socket->abort();
}

void ScriptedPeer::Connection::ReadAll()
{
    if (m_socket->bytesAvailable() > 0)
        m_received.append(m_socket->readAll());
}

void ScriptedPeer::Connection::OnClientGone()
{
    // Our own close and reset report through the same signals.
    if (m_selfClosed)
        return;
    ReadAll();
    m_clientClosed = true;
    Advance();
}

void ScriptedPeer::Connection::Advance()
{
    // Socket calls made by a step may emit signals that come back here.
    if (m_advancing) {
        m_again = true;
        return;
    }
    m_advancing = true;
    do {
        m_again = false;
        while (!m_scriptDone) {
            if (m_next >= m_steps.size()) {
                m_scriptDone = true;
                break;
            }
            const StepResult result = RunStep(*m_steps[m_next]);
            if (result == KStepWaiting)
                break;
            NextStep();
            if (result == KScriptEnded)
                m_scriptDone = true;
        }
    } while (m_again && !m_scriptDone);
    m_advancing = false;
}

void ScriptedPeer::Connection::NextStep()
{
    ++m_next;
    m_stepStarted = false;
    m_timerTicks = 0;
    m_polls = 0;
    m_timer.stop();
}

void ScriptedPeer::Connection::ArmPoll()
{
    if (m_timer.isActive())
        return;
    m_timer.start(m_polls < KFastPolls ? 0 : KSlowPollMs);
    ++m_polls;
}

ScriptedPeer::Connection::StepResult ScriptedPeer::Connection::RunTake(int available, int wanted)
{
    if (wanted < 0 || available < wanted)
        return KStepWaiting;
    m_captured.append(m_received.mid(m_consumed, wanted));
    m_consumed += wanted;
    return KStepDone;
}

ScriptedPeer::Connection::StepResult ScriptedPeer::Connection::RunWrite(const Step& step)
{
    if (!m_stepStarted) {
        // A client that has gone can never receive the step.
        if (!Connected())
            return KStepWaiting;
        const QByteArray bytes = step.kind == Step::KSendComputed ? step.make(m_received) : step.bytes;
        m_stepStarted = true;
        m_socket->write(bytes);
    }
    if (!Connected())
        return KStepWaiting;
    if (m_socket->bytesToWrite() > 0) {
        m_socket->flush();
        // The rest goes when the socket is writable again (bytesWritten).
        if (m_socket->bytesToWrite() > 0)
            return KStepWaiting;
    }
    if (KernelUnsent(m_socket->socketDescriptor()) > 0) {
        ArmPoll();
        return KStepWaiting;
    }
    return KStepDone;
}

ScriptedPeer::Connection::StepResult ScriptedPeer::Connection::RunAbort()
{
    if (Connected() && KernelUnsent(m_socket->socketDescriptor()) > 0) {
        ArmPoll();
        return KStepWaiting;
    }
    m_selfClosed = true;
    const qintptr fd = m_socket->socketDescriptor();
    if (fd >= 0) {
        // Linger on with a zero time: close() then sends RST instead of FIN.
        struct linger hard;
        hard.l_onoff = 1;
        hard.l_linger = 0;
        ::setsockopt(static_cast<int>(fd), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    }
    m_socket->abort();
    return KScriptEnded;
}

ScriptedPeer::Connection::StepResult ScriptedPeer::Connection::RunStep(const Step& step)
{
    const int available = m_received.size() - m_consumed;
    switch (step.kind) {
    case Step::KExpect:
        return RunTake(available, step.count);
    case Step::KExpectUntil: {
        const int at = m_received.indexOf(step.bytes, m_consumed);
        return at < 0 ? KStepWaiting : RunTake(available, at - m_consumed + step.bytes.size());
    }
    case Step::KExpectRequest: {
        const int at = m_received.indexOf(KHeadEnd, m_consumed);
        if (at < 0)
            return KStepWaiting;
        const int headLen = at - m_consumed + KHeadEnd.size();
        return RunTake(available, headLen + ContentLengthOf(m_received.mid(m_consumed, headLen)));
    }
    case Step::KExpectClose:
        return m_clientClosed ? KStepDone : KStepWaiting;
    case Step::KSend:
    case Step::KSendComputed:
        return RunWrite(step);
    case Step::KTurns:
        if (m_timerTicks >= step.count)
            return KStepDone;
        if (!m_timer.isActive())
            m_timer.start(0);
        return KStepWaiting;
    case Step::KWaitUntil:
        if (step.condition())
            return KStepDone;
        ArmPoll();
        return KStepWaiting;
    case Step::KDelay:
        if (m_timerTicks > 0)
            return KStepDone;
        if (!m_stepStarted) {
            m_stepStarted = true;
            m_timer.start(step.count);
        }
        return KStepWaiting;
    case Step::KClose:
        m_selfClosed = true;
        m_socket->disconnectFromHost();
        return KScriptEnded;
    case Step::KAbort:
        return RunAbort();
    case Step::KStaySilent:
        return KScriptEnded;
    }
    return KScriptEnded;
}

ScriptedPeer::ScriptedPeer()
{
    QObject::connect(&m_server, &QTcpServer::newConnection, &m_server, [this] { OnNewConnection(); });
}

ScriptedPeer::~ScriptedPeer()
{
    m_server.disconnect();
    m_server.close();
    m_connections.clear();
}

void ScriptedPeer::AddScript(const PeerScript& script)
{
    m_scripts.push_back(script);
}

bool ScriptedPeer::Listen(quint16 port)
{
    m_server.setMaxPendingConnections(1024);
    return m_server.listen(QHostAddress(QHostAddress::LocalHost), port);
}

void ScriptedPeer::StopListening()
{
    m_server.close();
}

quint16 ScriptedPeer::Port() const
{
    return m_server.serverPort();
}

QString ScriptedPeer::Url(const QString& path) const
{
    return QString("http://127.0.0.1:%1%2").arg(Port()).arg(path);
}

void ScriptedPeer::OnNewConnection()
{
    while (QTcpSocket* socket = m_server.nextPendingConnection()) {
        const size_t index = m_connections.size();
        PeerScript script;
        if (!m_scripts.empty())
            script = m_scripts[std::min(index, m_scripts.size() - 1)];
        m_connections.push_back(std::make_unique<Connection>(socket, script));
        m_connections.back()->Start();
    }
}

int ScriptedPeer::ConnectionCount() const
{
    return static_cast<int>(m_connections.size());
}

bool ScriptedPeer::WaitForConnections(int count, int deadlineMs) const
{
    return SpinUntil([this, count] { return ConnectionCount() >= count; }, deadlineMs);
}

QByteArray ScriptedPeer::Received(int index) const
{
    if (index < 0 || index >= ConnectionCount())
        return QByteArray();
    return m_connections[static_cast<size_t>(index)]->m_received;
}

QList<QByteArray> ScriptedPeer::Captured(int index) const
{
    if (index < 0 || index >= ConnectionCount())
        return QList<QByteArray>();
    return m_connections[static_cast<size_t>(index)]->m_captured;
}

bool ScriptedPeer::ScriptDone(int index) const
{
    return index >= 0 && index < ConnectionCount() && m_connections[static_cast<size_t>(index)]->m_scriptDone;
}

bool ScriptedPeer::ClientClosed(int index) const
{
    return index >= 0 && index < ConnectionCount() && m_connections[static_cast<size_t>(index)]->m_clientClosed;
}

bool ScriptedPeer::WaitForScriptDone(int index, int deadlineMs) const
{
    return SpinUntil([this, index] { return ScriptDone(index); }, deadlineMs);
}

}  // namespace velatest
