// Code signatures: inside the file, or in a catalog of the system.
#include "platform/signatures.h"

#include "platform/windows/signatures/signed_file.h"
#include "platform/windows/signatures/trust_verification.h"
#include "platform/windows/sys/text.h"

#include <array>
#include <cstddef>
#include <vector>

#include <wincrypt.h>

namespace korvane {

namespace windows_platform {

namespace {

struct CloseStore
{
    void operator()(void* store) const { CertCloseStore(store, 0); }
};

/// The name of the first signer of the message in the file at `path`, as its certificate's subject has
/// it; `content` is CERT_QUERY_CONTENT_FLAG_... Empty where there is none.
QString signerIn(const QString& path, DWORD content)
{
    constexpr DWORD maxInfoBytes = 1024 * 1024;
    constexpr DWORD longestName = 1024;
    HCERTSTORE rawStore = nullptr;
    HCRYPTMSG rawMessage = nullptr;
    DWORD encoding = 0;
    if (CryptQueryObject(CERT_QUERY_OBJECT_FILE, wide(path), content, CERT_QUERY_FORMAT_FLAG_BINARY,
                         0, &encoding, nullptr, nullptr, &rawStore, &rawMessage, nullptr) == FALSE)
        return {};
    const std::unique_ptr<void, CloseStore> store(rawStore);
    const std::unique_ptr<void, CloseBy<CryptMsgClose>> message(rawMessage);

    DWORD size = 0;
    if (CryptMsgGetParam(message.get(), CMSG_SIGNER_CERT_INFO_PARAM, 0, nullptr, &size) == FALSE ||
        size < sizeof(CERT_INFO) || size > maxInfoBytes)
        return {};
    std::vector<std::byte> memory(size);
    if (CryptMsgGetParam(message.get(), CMSG_SIGNER_CERT_INFO_PARAM, 0, memory.data(), &size) ==
        FALSE)
        return {};
    struct FreeCertificate
    {
        void operator()(const CERT_CONTEXT* context) const { CertFreeCertificateContext(context); }
    };
    const std::unique_ptr<const CERT_CONTEXT, FreeCertificate> certificate(
        CertGetSubjectCertificateFromStore(store.get(), encoding,
                                           reinterpret_cast<CERT_INFO*>(memory.data())));
    std::array<wchar_t, longestName> name{};
    if (!certificate || CertGetNameStringW(certificate.get(), CERT_NAME_SIMPLE_DISPLAY_TYPE, 0,
                                           nullptr, name.data(), longestName) == 0)
        return {};
    return fromBuffer({name.data(), name.size()});
}

} // namespace

} // namespace windows_platform

SignatureStatus platform::verifySignature(const QString& path)
{
    using namespace windows_platform;
    const auto file = openSignedFile(path);
    if (!file)
        return SignatureStatus::Unknown;
    if (file->size == 0) // It cannot be mapped, which the system takes for a failure.
        return SignatureStatus::Unsigned;
    const SignatureStatus status = verifyEmbedded(*file);
    return status == SignatureStatus::Unsigned ? findInCatalogs(*file).status : status;
}

bool platform::canVerifySignatures()
{
    return true;
}

QString platform::signerName(const QString& path)
{
    using namespace windows_platform;
    const auto file = openSignedFile(path);
    if (!file || file->size == 0)
        return {};
    QString name = signerIn(file->path, CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED);
    if (!name.isEmpty())
        return name;
    const QString catalog = findInCatalogs(*file).path;
    return catalog.isEmpty() ? QString() : signerIn(catalog, CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED);
}

} // namespace korvane
