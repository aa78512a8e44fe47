// corv-verify-manifest MANIFEST SIGNATURE
// Prints "verified" (exit 0) when the signature file verifies the manifest bytes against the
// key embedded in this build, "rejected" (exit 1) otherwise; exit 2 when a file is unreadable.
#include "update/manifest_signature.h"

#include <QFile>

#include <cstdio>

namespace {

bool readFile(const char* path, QByteArray& bytes)
{
    QFile file(QString::fromLocal8Bit(path));
    if (!file.open(QIODevice::ReadOnly))
        return false;
    bytes = file.readAll();
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QByteArray manifest;
    QByteArray signature;
    if (argc != 3 || !readFile(argv[1], manifest) || !readFile(argv[2], signature)) {
        std::fprintf(stderr, "usage: corv-verify-manifest MANIFEST SIGNATURE\n");
        return 2;
    }
    const bool verified = verifyManifestSignature(manifest, signature);
    std::printf("%s\n", verified ? "verified" : "rejected");
    return verified ? 0 : 1;
}
