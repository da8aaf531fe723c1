// The stdio transport: a reader thread takes lines, the main thread answers, the reader writes.
#include "mcp/mcp_server.h"

#include "base/shared_processor.h"
#include "base/standard_streams.h"
#include "base/watchdog.h"
#include "mcp/json_rpc.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QMutex>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

/// How much is read at once.
constexpr std::size_t bufferBytes = std::size_t{64} * 1024;

/// A longer line is discarded as it is read: what it may cost has to have an end.
constexpr std::size_t maxLineBytes = std::size_t{128} * 1024 * 1024;

/// A parsed value costs many times the bytes of its text, so their number has an end of its own.
constexpr int maxValues = 1'000'000;

/// The line buffer is reused, but what one huge line took is given back.
constexpr std::size_t maxIdleCapacity = std::size_t{1024} * 1024;

enum class LineStatus { Whole, TooLong, EndOfInput };

/// Takes the input apart into lines.
class LineReader
{
public:
    explicit LineReader(StandardStreams& streams) : m_streams(streams), m_buffer(bufferBytes) {}

    /// Reads up to the next line feed (not kept) into `line`. A last line without one counts.
    LineStatus read(std::string& line)
    {
        line.clear();
        if (line.capacity() > maxIdleCapacity)
            line.shrink_to_fit();

        bool tooLong = false;
        for (bool isComplete = false; !isComplete;) {
            if (m_unread.empty() && !fill()) {
                if (m_hasFailed || (line.empty() && !tooLong))
                    return LineStatus::EndOfInput;
                break;
            }
            const std::size_t lineFeed = m_unread.find('\n');
            const std::string_view piece = m_unread.substr(0, lineFeed);
            tooLong = tooLong || line.size() + piece.size() > maxLineBytes;
            if (!tooLong)
                line.append(piece);
            isComplete = lineFeed != std::string_view::npos;
            m_unread.remove_prefix(piece.size() + (isComplete ? 1 : 0));
        }
        return tooLong ? LineStatus::TooLong : LineStatus::Whole;
    }

private:
    /// Waits for more; false when there is none. An end is final, as it is not at a terminal.
    bool fill()
    {
        if (m_hasEnded)
            return false;
        const std::ptrdiff_t count = m_streams.read(m_buffer);
        m_hasFailed = count < 0;
        m_hasEnded = count <= 0;
        if (!m_hasEnded)
            m_unread = std::string_view(m_buffer.data(), static_cast<std::size_t>(count));
        return !m_hasEnded;
    }

    StandardStreams& m_streams;
    std::vector<char> m_buffer;
    std::string_view m_unread; ///< Of m_buffer.
    bool m_hasEnded = false;
    bool m_hasFailed = false;
};

/// Whether the text, if it is JSON, holds no more than maxValues: each but the first of a container
/// follows a comma, and each container an opening bracket.
bool isParsable(const std::string& text)
{
    int values = 1;
    bool inString = false;
    for (std::size_t i = 0; i < text.size() && values <= maxValues; ++i) {
        const char character = text[i];
        if (character == '"')
            inString = !inString;
        else if (inString)
            i += character == '\\' ? 1 : 0; // the escaped character may be a quote
        else if (character == ',' || character == '[' || character == '{')
            ++values;
    }
    return values <= maxValues;
}

/// Writes one message as a line and flushes. False when the output takes no more.
bool writeJsonLine(StandardStreams& streams, const QJsonObject& message)
{
    static QMutex outputLock;
    const QByteArray bytes = QJsonDocument(message).toJson(QJsonDocument::Compact) + '\n';
    const QMutexLocker locker(&outputLock);
    return streams.write({bytes.constData(), static_cast<std::size_t>(bytes.size())});
}

QJsonObject parseErrorResponse(const QJsonParseError& error)
{
    return makeError(QJsonValue::Null, parseErrorCode,
                     u"Parse error: %1"_s.arg(error.errorString()));
}

/// Hands requests from the reader thread to the main thread, one at a time.
///
/// Invariant: `m_response` belongs to the main thread from the posting of a request until
/// m_answered counts it, and to the reader thread at all other times.
class MainThreadCall
{
public:
    MainThreadCall(McpServer* server, SharedProcessor& processor)
        : m_server(server), m_processor(processor)
    {
    }

    /// Reader thread: has the main thread answer one request, and waits for it. The event loop runs
    /// as long as the reader does, so the request is never dropped.
    QJsonObject ask(const QJsonObject& request)
    {
        // To look again a few times is cheaper than to sleep at once, as a blocking invocation does.
        // Only one of the two threads ever works, so they lose nothing by sharing a processor.
        constexpr int looks = 16;
        m_processor.gather();
        QMetaObject::invokeMethod(
            m_server, [this, request] { answer(request); }, Qt::QueuedConnection);
        for (int i = 0; i < looks && !m_isAnswered; ++i)
            std::this_thread::yield();
        {
            std::unique_lock lock(m_lock);
            m_answered.wait(lock, [this] { return m_isAnswered.load(); });
            m_isAnswered = false;
        }
        m_processor.release();
        return std::exchange(m_response, {});
    }

private:
    void answer(const QJsonObject& request)
    {
        m_processor.release();
        m_response = m_server->handleRequest(request, ProgressCallback());
        {
            const std::scoped_lock lock(m_lock);
            m_isAnswered = true;
        }
        m_answered.notify_one(); // Without the lock, for which whoever wakes would wait at once.
    }

    McpServer* m_server;
    SharedProcessor& m_processor;
    QJsonObject m_response;
    /// Not an atomic's wait(): where the system has no futex, GCC's may miss what notifies it.
    std::condition_variable m_answered;
    std::mutex m_lock; ///< For setting the flag.
    std::atomic<bool> m_isAnswered = false;
};

/// The response to one line; empty when there is none to write.
QJsonObject answerLine(MainThreadCall& mainThread, LineStatus status, const std::string& line)
{
    QJsonParseError error;
    if (status == LineStatus::TooLong || !isParsable(line)) {
        error.error = QJsonParseError::DocumentTooLarge;
        return parseErrorResponse(error);
    }
    const QByteArray bytes =
        QByteArray::fromRawData(line.data(), static_cast<qsizetype>(line.size()));
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    // A document that is not an object carries the text of "no error" to the client.
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return parseErrorResponse(error);
    return mainThread.ask(document.object());
}

/// The reader thread: until the input ends or the output fails, then asks the application to quit.
void readLines(MainThreadCall& mainThread, StandardStreams& streams, QCoreApplication* application,
               std::atomic<bool>& stdinClosed)
{
    LineReader reader(streams);
    std::string line;
    for (;;) {
        const LineStatus status = reader.read(line);
        if (status == LineStatus::EndOfInput)
            break;
        if (status == LineStatus::Whole && line.empty())
            continue;
        const QJsonObject response = answerLine(mainThread, status, line);
        if (!response.isEmpty() && !writeJsonLine(streams, response))
            break;
    }
    stdinClosed.store(true);
    QMetaObject::invokeMethod(application, "quit", Qt::QueuedConnection);
}

} // namespace

int McpServer::runStdio(StandardStreams& streams, SharedProcessor& processor)
{
    const Watchdog watchdog([&streams] { return streams.inputHasEnded(); },
                            [] { std::_Exit(EXIT_FAILURE); }, Watchdog::Limits());
    QCoreApplication* const application = QCoreApplication::instance();
    std::atomic<bool> stdinClosed = false;
    MainThreadCall mainThread(this, processor);
    std::thread reader(readLines, std::ref(mainThread), std::ref(streams), application,
                       std::ref(stdinClosed));
    const int exitCode = QCoreApplication::exec();
    // The reader may still be inside the posting of "quit": nothing it uses may go before it ends.
    reader.join();
    return exitCode;
}

} // namespace korvane
