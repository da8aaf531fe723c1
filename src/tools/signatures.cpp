// The tool that verifies the code signatures of executables.
#include "tools/handlers.h"

#include "base/watchdog.h"
#include "core/processes.h"
#include "core/signatures.h"

#include <QJsonArray>
#include <QSet>

namespace korvane {

using namespace Qt::StringLiterals;

namespace {

/// Progress is told after each so many files.
constexpr qsizetype progressStep = 20;

/// The strings that are not empty, each once, in order.
class PathCollector
{
public:
    void add(const QString& path)
    {
        if (path.isEmpty() || m_taken.contains(path))
            return;
        m_taken.insert(path);
        m_paths.append(path);
    }
    const QList<QString>& paths() const { return m_paths; }

private:
    QSet<QString> m_taken;
    QList<QString> m_paths;
};

/// The named paths; those of the running processes when none is named, not even an empty one.
QList<QString> pathsToVerify(const QJsonArray& named)
{
    PathCollector collector;
    for (const QJsonValue path : named)
        collector.add(path.toString());
    if (named.isEmpty()) {
        const auto processes = Singleton<ProcessService>::instance().listAllProcesses();
        for (const ProcessSnapshot& process : processes)
            collector.add(process.exePath);
    }
    return collector.paths();
}

struct Verdicts
{
    qsizetype trusted = 0;
    qsizetype untrusted = 0;
    qsizetype unsignedFiles = 0;
    qsizetype unknown = 0;

    qsizetype& of(SignatureStatus status)
    {
        switch (status) {
        case SignatureStatus::Trusted:
            return trusted;
        case SignatureStatus::Untrusted:
            return untrusted;
        case SignatureStatus::Unsigned:
            return unsignedFiles;
        case SignatureStatus::Unchecked:
        case SignatureStatus::Unknown:
            break;
        }
        return unknown;
    }
};

QJsonObject entryOf(const QString& path, SignatureStatus status, bool includeSigner)
{
    QJsonObject entry{{u"path"_s, path}, {u"signature"_s, signatureStatusLabel(status)}};
    const bool isSigned =
        status == SignatureStatus::Trusted || status == SignatureStatus::Untrusted;
    if (!includeSigner || !isSigned)
        return entry;
    const QString signer = Singleton<SignatureService>::instance().signerName(path);
    if (!signer.isEmpty())
        entry.insert(u"signer"_s, signer);
    return entry;
}

} // namespace

QJsonObject toolVerifySignatures(const QJsonObject& args, const ProgressCallback& progress)
{
    const Watchdog::Work work;
    const QList<QString> paths = pathsToVerify(args.value("paths"_L1).toArray());
    if (paths.isEmpty()) {
        return {{u"total"_s, 0},
                {u"results"_s, QJsonArray()},
                {u"note"_s, u"无可验签路径 (入参 paths 为空且无可读 exe 路径的进程)"_s}};
    }

    const bool onlySuspicious = args.value("only_suspicious"_L1).toBool();
    const bool includeSigner = args.value("include_signer"_L1).toBool();
    SignatureService& signatures = Singleton<SignatureService>::instance();
    Verdicts verdicts;
    QJsonArray results;
    qsizetype done = 0;
    for (const QString& path : paths) {
        Watchdog::step();
        const SignatureStatus status = signatures.verify(path);
        ++verdicts.of(status);
        if (!onlySuspicious || status != SignatureStatus::Trusted)
            results.append(entryOf(path, status, includeSigner));
        ++done;
        if (progress && done % progressStep == 0)
            progress({{u"verified"_s, done}, {u"total"_s, paths.size()}});
    }
    signatures.flushPersistent();

    QJsonObject result{
        {u"total"_s, paths.size()},           {u"trusted"_s, verdicts.trusted},
        {u"untrusted"_s, verdicts.untrusted}, {u"unsigned"_s, verdicts.unsignedFiles},
        {u"unknown"_s, verdicts.unknown},     {u"results"_s, results}};
    if (onlySuspicious) {
        result.insert(u"only_suspicious"_s, true);
        result.insert(u"omitted_trusted"_s, verdicts.trusted);
        result.insert(u"note"_s, u"only_suspicious=true: results[] 仅含非 Trusted 条目, 已省略 "
                                 "%1 个已签名进程"_s.arg(verdicts.trusted));
    }
    return result;
}

} // namespace korvane
