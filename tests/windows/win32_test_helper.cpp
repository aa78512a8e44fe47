// The Windows processes that the black-box rows of updater_blackbox.py run beside updater.exe
// under Wine. Plain Win32, no Qt. Each mode prints one line when it is in place and then keeps
// its state until its standard input closes (or it is killed):
//   win32_test_helper.exe hold PATH     PATH open for reading, shared for reading and writing
//                                       but not for deletion, as a running program holds a file
//   win32_test_helper.exe mutex NAME    owns the named mutex NAME (the application's lock)
//   win32_test_helper.exe live MS       a process that ends after MS milliseconds; the line
//                                       gives its Windows process id
//   win32_test_helper.exe trust DER     puts the DER certificate into the machine's ROOT store
//                                       (first removing any earlier one with the same subject)
//                                       and exits
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

namespace {

// "ready <Windows process id>": the harness waits for this line.
void ready()
{
    std::printf("ready %lu\n", GetCurrentProcessId());
    std::fflush(stdout);
}

void waitForStdinToClose()
{
    char buffer[256];
    DWORD got = 0;
    while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), buffer, sizeof buffer, &got, nullptr) && got > 0) {
    }
}

int fail(const char* what)
{
    std::printf("failed %s %lu\n", what, GetLastError());
    std::fflush(stdout);
    return 1;
}

int trust(const wchar_t* derPath)
{
    HANDLE file = CreateFileW(derPath, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return fail("open");
    std::vector<BYTE> der(GetFileSize(file, nullptr));
    DWORD got = 0;
    const BOOL read = ReadFile(file, der.data(), DWORD(der.size()), &got, nullptr);
    CloseHandle(file);
    if (!read || got != der.size())
        return fail("read");
    PCCERT_CONTEXT cert = CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), DWORD(der.size()));
    if (!cert)
        return fail("parse");
    HCERTSTORE root = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"ROOT");
    if (!root)
        return fail("store");
    // Every test run makes a new CA of the same name: keep one in the store, not one per run.
    std::vector<PCCERT_CONTEXT> earlier;
    for (PCCERT_CONTEXT c = nullptr; (c = CertEnumCertificatesInStore(root, c));) {
        if (CertCompareCertificateName(X509_ASN_ENCODING, &c->pCertInfo->Subject, &cert->pCertInfo->Subject))
            earlier.push_back(CertDuplicateCertificateContext(c));
    }
    for (PCCERT_CONTEXT c : earlier)
        CertDeleteCertificateFromStore(c);
    // The registry behind the store is written when the store is committed, not on every add.
    if (!CertAddCertificateContextToStore(root, cert, CERT_STORE_ADD_REPLACE_EXISTING, nullptr)
        || !CertControlStore(root, 0, CERT_STORE_CTRL_COMMIT, nullptr))
        return fail("add");
    CertCloseStore(root, 0);
    CertFreeCertificateContext(cert);
    ready();
    return 0;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 3)
        return 2;
    const std::wstring mode = argv[1];
    if (mode == L"trust")
        return trust(argv[2]);
    if (mode == L"live") {
        ready();
        Sleep(DWORD(std::wcstoul(argv[2], nullptr, 10)));
        return 0;
    }
    HANDLE held = nullptr;
    if (mode == L"hold") {
        held = CreateFileW(argv[2], GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
        if (held == INVALID_HANDLE_VALUE)
            return fail("hold");
    } else if (mode == L"mutex") {
        held = CreateMutexW(nullptr, TRUE, argv[2]);
        if (!held || GetLastError() == ERROR_ALREADY_EXISTS)
            return fail("mutex");
    } else {
        return 2;
    }
    ready();
    waitForStdinToClose();
    CloseHandle(held);
    return 0;
}
