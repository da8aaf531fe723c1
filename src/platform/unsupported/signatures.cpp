// Signature verification without a back end.
#include "platform/signatures.h"

#include "platform/unsupported/unsupported.h"

namespace korvane {

SignatureStatus platform::verifySignature(const QString& /*path*/)
{
    static bool logged = false;
    unsupported::logOnce(logged, "[SignatureService] 当前平台不支持 Authenticode 签名验证");
    return SignatureStatus::Unknown;
}

bool platform::canVerifySignatures()
{
    return false;
}

QString platform::signerName(const QString& /*path*/)
{
    return {};
}

} // namespace korvane
