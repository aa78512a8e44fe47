// The Windows processes that the black-box rows of updater_blackbox.py run beside updater.exe
// under Wine. Each prints "ready <its Windows process id>" when it is in place, then keeps its
// state until its standard input closes (or it is killed):
//   win32_test_helper.exe hold PATH     PATH open for reading, shared for reading and writing
//                                       but not for deletion, as a running program holds a file
//   win32_test_helper.exe mutex NAME    owns the named mutex NAME (the application's lock)
//   win32_test_helper.exe live MS       ends after MS milliseconds instead
//   win32_test_helper.exe trust DER     puts the DER certificate into the machine's ROOT store
//                                       (first removing any earlier one with the same subject)
//                                       and exits
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <cwchar>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

int fail(const char* what)
{
    std::printf("failed %s %lu\n", what, GetLastError());
    return 1;
}

int trust(const wchar_t* derPath)
{
    std::ifstream file(derPath, std::ios::binary);
    const std::vector<BYTE> der { std::istreambuf_iterator<char>(file), {} };
    PCCERT_CONTEXT cert = CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), DWORD(der.size()));
    HCERTSTORE root = CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"ROOT");
    if (!cert || !root)
        return fail(cert ? "store" : "parse");
    // Every test run makes a new CA of the same name: keep one in the store, not one per run.
    std::vector<PCCERT_CONTEXT> earlier;
    for (PCCERT_CONTEXT c = nullptr; (c = CertEnumCertificatesInStore(root, c));)
        if (CertCompareCertificateName(X509_ASN_ENCODING, &c->pCertInfo->Subject, &cert->pCertInfo->Subject))
            earlier.push_back(CertDuplicateCertificateContext(c));
    for (PCCERT_CONTEXT c : earlier)
        CertDeleteCertificateFromStore(c);
    // The registry behind the store is written when the store is committed, not on every add.
    if (!CertAddCertificateContextToStore(root, cert, CERT_STORE_ADD_REPLACE_EXISTING, nullptr)
        || !CertControlStore(root, 0, CERT_STORE_CTRL_COMMIT, nullptr))
        return fail("add");
    CertCloseStore(root, 0);
    CertFreeCertificateContext(cert);
    std::printf("ready %lu\n", GetCurrentProcessId());
    return 0;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const std::wstring mode = argc == 3 ? argv[1] : L"";
    std::setvbuf(stdout, nullptr, _IONBF, 0); // the harness reads each line as it comes
    if (mode == L"trust")
        return trust(argv[2]);
    HANDLE held = mode == L"hold" ? CreateFileW(argv[2], GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr)
        : mode == L"mutex"        ? CreateMutexW(nullptr, TRUE, argv[2])
                                  : nullptr;
    if (mode == L"hold" && held == INVALID_HANDLE_VALUE)
        return fail("hold");
    if (mode == L"mutex" && (!held || GetLastError() == ERROR_ALREADY_EXISTS))
        return fail("mutex");
    if (mode != L"hold" && mode != L"mutex" && mode != L"live")
        return 2;
    std::printf("ready %lu\n", GetCurrentProcessId());
    if (mode == L"live")
        Sleep(DWORD(std::wcstoul(argv[2], nullptr, 10)));
    char buffer[256];
    DWORD got = 0;
    while (mode != L"live" && ReadFile(GetStdHandle(STD_INPUT_HANDLE), buffer, sizeof buffer, &got, nullptr) && got > 0) {
    }
    CloseHandle(held);
    return 0;
}
