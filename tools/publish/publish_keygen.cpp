#include "command_line.h"
#include "console.h"
#include "publish_commands.h"
#include "signing_key.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryFile>

namespace {

const char kHelp[] =
    "Usage: corvanta-publish keygen --out-dir DIR\n"
    "\n"
    "Creates a new ECDSA P-256 key pair for signing manifests:\n"
    "  DIR/private.pem  the signing key (PKCS#8 PEM, readable by its owner only); keep it\n"
    "                   secret and off the update server\n"
    "  DIR/public.pem   the public key; build the updater with\n"
    "                   -DCORV_PUBLIC_KEY_FILE=DIR/public.pem so that it trusts this key\n"
    "DIR is created when missing. An existing key is never overwritten.\n";

// Writes bytes to a new file at path with the given permissions. The content goes to a
// temporary file that is created readable by its owner only, gets its final permissions, and
// takes the final name by a rename that never replaces an existing file.
bool writeNewFile(const QString& path, const QByteArray& bytes, QFile::Permissions permissions,
                  QString* error)
{
    QTemporaryFile temp(path + QStringLiteral(".XXXXXX"));
    temp.setAutoRemove(true);
    if (!temp.open() || !temp.setPermissions(permissions) || temp.write(bytes) != bytes.size()
        || !temp.flush()) {
        *error = QStringLiteral("cannot write \"%1\": %2").arg(path, temp.errorString());
        return false;
    }
    temp.close();
    if (!QFile::rename(temp.fileName(), path)) {
        *error = QStringLiteral("cannot create \"%1\" (it exists, or the directory is not writable)")
                     .arg(path);
        return false;
    }
    temp.setAutoRemove(false);
    return true;
}

} // namespace

int runKeygen(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addOption(QCommandLineOption(QStringLiteral("out-dir"), QString(), QStringLiteral("DIR")));
    int exitCode = kExitOk;
    if (!parseCommandLine(parser, QStringLiteral("keygen"), args, kHelp, {QStringLiteral("out-dir")},
                          &exitCode))
        return exitCode;

    const QString outDir = parser.value(QStringLiteral("out-dir"));
    if (outDir.isEmpty())
        return usageError(QStringLiteral("keygen"), QStringLiteral("--out-dir is empty"));
    const QString privatePath = QDir(outDir).filePath(QStringLiteral("private.pem"));
    const QString publicPath = QDir(outDir).filePath(QStringLiteral("public.pem"));
    for (const QString& path : {privatePath, publicPath}) {
        if (QFileInfo::exists(path) || QFileInfo(path).isSymLink())
            return fail(QStringLiteral("refusing to overwrite existing key \"%1\"").arg(path));
    }
    if (!QDir().mkpath(outDir) || !QFileInfo(outDir).isDir())
        return fail(QStringLiteral("cannot create directory \"%1\"").arg(outDir));

    const SigningKey key = SigningKey::generate();
    const QByteArray privatePem = key.privateKeyPem();
    const QByteArray publicPem = key.publicKeyPem();
    if (privatePem.isEmpty() || publicPem.isEmpty())
        return fail(QStringLiteral("OpenSSL could not generate a P-256 key"));

    QString error;
    if (!writeNewFile(privatePath, privatePem, QFile::ReadOwner | QFile::WriteOwner, &error))
        return fail(error);
    const QFile::Permissions everyoneReads =
        QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther;
    if (!writeNewFile(publicPath, publicPem, everyoneReads, &error)) {
        // A private key without its public half is of no use; leave no half-made pair behind.
        QFile::remove(privatePath);
        return fail(error);
    }
    printOut(QStringLiteral("private key: %1 (keep it secret)").arg(privatePath));
    printOut(QStringLiteral("public key:  %1 (build the updater with -DCORV_PUBLIC_KEY_FILE=%2)")
                 .arg(publicPath, QFileInfo(publicPath).absoluteFilePath()));
    return kExitOk;
}
