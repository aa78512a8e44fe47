#include "command_line.h"
#include "console.h"
#include "publish_commands.h"
#include "signing_key.h"

#include "apply/artifact_decoder.h"
#include "base/sha256.h"
#include "update/manifest.h"
#include "update/manifest_signature.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

const char kHelp[] =
    "Usage: corvanta-publish verify --dir DIR [--public-key PUB.pem]\n"
    "\n"
    "Checks a published tree as the updater would see it: manifest.json must carry a valid\n"
    "signature in manifest.json.sig and parse, and every file it lists must exist below DIR\n"
    "with the listed size and SHA-256. So must every compressed copy and patch it lists below\n"
    ".zstd/, and every compressed copy must decode to its file.\n"
    "\n"
    "  --dir DIR             the published tree (the directory served at baseUrl)\n"
    "  --public-key PUB.pem  the key to check the signature with; without it, the key built\n"
    "                        into this copy of the tools (the updater's CORV_PUBLIC_KEY_FILE)\n"
    "\n"
    "Every problem is reported on stderr; the exit code is 0 only when there is none.\n";

// Manifest and signature are small documents; anything larger is not one.
constexpr qint64 kMaxDocumentBytes = 64 * 1024 * 1024;

bool readDocument(const QString& path, QByteArray* bytes, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read \"%1\": %2").arg(path, file.errorString());
        return false;
    }
    if (file.size() > kMaxDocumentBytes) {
        *error = QStringLiteral("\"%1\" is too large to be a manifest").arg(path);
        return false;
    }
    *bytes = file.readAll();
    return true;
}

// Checks one listed file (a build file or an artifact, `what` says which) against its size and
// SHA-256; prints the problem and returns false when it does not match.
bool matchesListing(const QDir& dir, const ManifestFile& listed, const QString& what)
{
    const QFileInfo info(dir.filePath(listed.path));
    if (!info.exists()) {
        printError(QStringLiteral("missing: \"%1\"%2").arg(listed.path, what));
    } else if (!info.isFile()) {
        printError(QStringLiteral("not a regular file: \"%1\"%2").arg(listed.path, what));
    } else if (info.size() != listed.size) {
        printError(QStringLiteral("size differs: \"%1\"%2 is listed with %3 bytes but has %4")
                       .arg(listed.path, what).arg(listed.size).arg(info.size()));
    } else {
        const QString actual = sha256OfFile(info.filePath());
        if (actual == listed.sha256)
            return true;
        printError(QStringLiteral("content differs: \"%1\"%2 has SHA-256 %3, the manifest lists %4")
                       .arg(listed.path, what, actual.isEmpty() ? QStringLiteral("(unreadable)") : actual,
                            listed.sha256));
    }
    return false;
}

// The problems of one file entry: the file itself, each artifact, and whether the compressed
// copy decodes to the file.
int problemsOf(const QDir& dir, const ManifestFile& file)
{
    int problems = matchesListing(dir, file, QString()) ? 0 : 1;
    for (const ManifestArtifact& artifact : file.artifacts) {
        const ManifestFile listed = artifactAsFile(file, artifact);
        const QString what = QStringLiteral(" (%1 of \"%2\")")
                                 .arg(artifact.isPatch() ? QStringLiteral("patch") : QStringLiteral("compressed copy"), file.path);
        if (!matchesListing(dir, listed, what)) {
            ++problems;
            continue;
        }
        if (artifact.isPatch())
            continue;  // its source is an earlier build, which is not here
        Sha256 decoded;
        QString error;
        const bool ok = decodeArtifact(dir.filePath(listed.path), QString(), file.size,
                                       [&decoded](const char* data, qint64 length) {
                                           decoded.addData(data, length);
                                           return true;
                                       },
                                       &error);
        if (ok && decoded.hexResult() == file.sha256)
            continue;
        printError(QStringLiteral("does not decode to its file: \"%1\"%2: %3")
                       .arg(listed.path, what, ok ? QStringLiteral("other content") : error));
        ++problems;
    }
    return problems;
}

} // namespace

int runVerify(const QStringList& args)
{
    const QString command = QStringLiteral("verify");
    QCommandLineParser parser;
    parser.addOption(QCommandLineOption(QStringLiteral("dir"), QString(), QStringLiteral("DIR")));
    parser.addOption(QCommandLineOption(QStringLiteral("public-key"), QString(), QStringLiteral("PEM")));
    int exitCode = kExitOk;
    if (!parseCommandLine(parser, command, args, kHelp, {QStringLiteral("dir")}, &exitCode))
        return exitCode;

    const QDir dir(parser.value(QStringLiteral("dir")));
    QString error;
    QByteArray publicKey;
    if (parser.isSet(QStringLiteral("public-key"))) {
        const QString keyPath = parser.value(QStringLiteral("public-key"));
        if (!readDocument(keyPath, &publicKey, &error))
            return fail(error);
        const QString problem = publicKeyPemProblem(publicKey);
        if (!problem.isEmpty())
            return fail(QStringLiteral("key \"%1\" %2").arg(keyPath, problem));
    }
    QByteArray manifestBytes;
    QByteArray signature;
    if (!readDocument(dir.filePath(QStringLiteral("manifest.json")), &manifestBytes, &error)
        || !readDocument(dir.filePath(QStringLiteral("manifest.json.sig")), &signature, &error))
        return fail(error);

    int problems = 0;
    const bool signatureValid = publicKey.isEmpty()
                                    ? verifyManifestSignature(manifestBytes, signature)
                                    : verifyWithPublicKeyPem(manifestBytes, signature, publicKey);
    if (!signatureValid) {
        printError(QStringLiteral("signature: manifest.json.sig does not verify manifest.json with %1")
                       .arg(publicKey.isEmpty() ? QStringLiteral("the built-in key")
                                                : QStringLiteral("this key")));
        ++problems;
    }
    Manifest manifest;
    if (!parseManifest(manifestBytes, &manifest)) {
        return fail(QStringLiteral("manifest.json is not a usable manifest (not JSON, no fullVersion, "
                                   "no file entry, or a path the updater rejects)"));
    }

    for (const ManifestFile& file : manifest.files)
        problems += problemsOf(dir, file);
    if (problems > 0)
        return fail(QStringLiteral("verify failed: %1 problem(s) in \"%2\"").arg(problems).arg(dir.path()));

    const QString target = QStringList{manifest.product, manifest.arch}.join(QLatin1Char(' ')).trimmed();
    const QString build = manifest.buildNumber >= 0
                              ? QStringLiteral(" (build %1)").arg(manifest.buildNumber)
                              : QString();
    printOut(QStringLiteral("OK: %1 %2%3, %4 files, signature valid")
                 .arg(target.isEmpty() ? QStringLiteral("version") : target, manifest.fullVersion, build)
                 .arg(manifest.files.size()));
    int compressed = 0;
    int patches = 0;
    for (const ManifestFile& file : manifest.files) {
        for (const ManifestArtifact& artifact : file.artifacts)
            ++(artifact.isPatch() ? patches : compressed);
    }
    if (compressed + patches > 0)
        printOut(QStringLiteral("OK: %1 and %2 in %3")
                     .arg(counted(compressed, QStringLiteral("compressed copy"), QStringLiteral("compressed copies")),
                          counted(patches, QStringLiteral("patch"), QStringLiteral("patches")),
                          QLatin1String(kArtifactDir)));
    return kExitOk;
}
