// CryptCATAdmin: hashing a file as catalogs do, and the catalogs that have that hash.
#include "platform/windows/signatures/trust_verification.h"
#include "platform/windows/sys/system_library.h"
#include "platform/windows/sys/text.h"

#include <array>

#include <mscat.h>
#include <softpub.h>

namespace korvane::windows_platform {

namespace {

// The cross compiler's library lacks them.
using AcquireContext = BOOL(WINAPI*)(HCATADMIN*, const GUID*, const WCHAR*,
                                     const CERT_STRONG_SIGN_PARA*, DWORD);
using CalculateHash = BOOL(WINAPI*)(HCATADMIN, HANDLE, DWORD*, BYTE*, DWORD);

/// The catalogs by one kind of hash.
class Catalogs
{
public:
    explicit Catalogs(const wchar_t* algorithm)
    {
        static const auto acquire =
            systemFunction<AcquireContext>(L"wintrust.dll", "CryptCATAdminAcquireContext2");
        const GUID subsystem =
            DRIVER_ACTION_VERIFY; // Of the system's own files, not drivers alone.
        if (acquire == nullptr || acquire(&m_admin, &subsystem, algorithm, nullptr, 0) == FALSE)
            m_admin = nullptr;
    }
    ~Catalogs()
    {
        if (m_catalog != nullptr)
            CryptCATAdminReleaseCatalogContext(m_admin, m_catalog, 0);
        if (m_admin != nullptr)
            CryptCATAdminReleaseContext(m_admin, 0);
    }
    Catalogs(const Catalogs&) = delete;
    Catalogs& operator=(const Catalogs&) = delete;
    Catalogs(Catalogs&&) = delete;
    Catalogs& operator=(Catalogs&&) = delete;

    HCATADMIN admin() const { return m_admin; }

    /// The file's hash; empty on a failure.
    QByteArray hashOf(const SignedFile& file) const
    {
        constexpr DWORD longest = 64;
        static const auto calculate =
            systemFunction<CalculateHash>(L"wintrust.dll", "CryptCATAdminCalcHashFromFileHandle2");
        DWORD size = longest;
        QByteArray hash(longest, '\0');
        const LARGE_INTEGER start{};
        if (calculate == nullptr || m_admin == nullptr ||
            SetFilePointerEx(file.handle.get(), start, nullptr, FILE_BEGIN) == FALSE ||
            calculate(m_admin, file.handle.get(), &size, reinterpret_cast<BYTE*>(hash.data()), 0) ==
                FALSE)
            return {};
        return hash.first(qsizetype{size});
    }

    /// Goes on to the next catalog that has `hash`; its path, or an empty one after the last.
    QString next(QByteArray& hash)
    {
        // Takes the catalog before back, and gives nothing back after the last.
        m_catalog = CryptCATAdminEnumCatalogFromHash(m_admin, reinterpret_cast<BYTE*>(hash.data()),
                                                     static_cast<DWORD>(hash.size()), 0,
                                                     m_catalog != nullptr ? &m_catalog : nullptr);
        CATALOG_INFO info{};
        info.cbStruct = sizeof info;
        if (m_catalog == nullptr || CryptCATCatalogInfoFromContext(m_catalog, &info, 0) == FALSE)
            return {};
        return fromBuffer({info.wszCatalogFile, std::size(info.wszCatalogFile)});
    }

private:
    HCATADMIN m_admin = nullptr;
    HCATINFO m_catalog = nullptr;
};

/// Whether the search failed with this, rather than found nothing: the service that keeps the catalogs
/// may be stopped, or cannot be reached.
bool isFailure(DWORD code)
{
    const bool isOfServices =
        code >= ERROR_DEPENDENT_SERVICES_RUNNING && code <= ERROR_SERVICE_NEVER_STARTED;
    const bool isOfCalls =
        code >= RPC_S_INVALID_STRING_BINDING && code <= RPC_S_GRP_ELT_NOT_REMOVED;
    return isOfServices || isOfCalls || code == ERROR_ACCESS_DENIED ||
           code == ERROR_NOT_ENOUGH_MEMORY || code == ERROR_OUTOFMEMORY;
}

SignatureStatus verifyBy(const QString& path, QByteArray& hash, const Catalogs& catalogs,
                         const SignedFile& file)
{
    const QString tag = QString::fromLatin1(hash.toHex()).toUpper();
    WINTRUST_CATALOG_INFO catalog{};
    catalog.cbStruct = sizeof catalog;
    catalog.pcwszCatalogFilePath = wide(path);
    catalog.pcwszMemberTag = wide(tag);
    catalog.pcwszMemberFilePath = wide(file.path);
    catalog.hMemberFile = file.handle.get();
    catalog.pbCalculatedFileHash = reinterpret_cast<BYTE*>(hash.data());
    catalog.cbCalculatedFileHash = static_cast<DWORD>(hash.size());
    catalog.hCatAdmin = catalogs.admin();
    const SignatureStatus status = verifyInCatalog(catalog);
    // A catalog that has the file's hash but no signature of its own proves nothing.
    return status == SignatureStatus::Unsigned ? SignatureStatus::Unknown : status;
}

CatalogAnswer findBy(const wchar_t* algorithm, const SignedFile& file)
{
    constexpr int maxCatalogs = 16;
    Catalogs catalogs(algorithm);
    QByteArray hash = catalogs.hashOf(file);
    if (hash.isEmpty())
        return {SignatureStatus::Unknown, {}};
    CatalogAnswer answer;
    for (int i = 0; i < maxCatalogs && answer.status != SignatureStatus::Trusted; ++i) {
        SetLastError(ERROR_SUCCESS);
        const QString path = catalogs.next(hash);
        if (path.isEmpty() && answer.path.isEmpty() && isFailure(GetLastError()))
            return {SignatureStatus::Unknown, {}};
        if (path.isEmpty())
            break;
        answer = {verifyBy(path, hash, catalogs, file), path};
    }
    return answer;
}

} // namespace

CatalogAnswer findInCatalogs(const SignedFile& file)
{
    CatalogAnswer bySha256 = findBy(L"SHA256", file);
    if (bySha256.status == SignatureStatus::Trusted)
        return bySha256;
    CatalogAnswer bySha1 = findBy(L"SHA1", file);
    const bool isBetter =
        bySha1.status == SignatureStatus::Trusted || bySha256.status == SignatureStatus::Unsigned;
    return isBetter ? bySha1 : bySha256;
}

} // namespace korvane::windows_platform
