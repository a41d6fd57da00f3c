// trustroot <certificate.der>: adds the certificate to the LocalMachine Root
// store, replacing an earlier copy. Exit code 0 on success.
#include <windows.h>
#include <wincrypt.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

int wmain(int argc, wchar_t** argv) {
    if (argc != 2) {
        std::fwprintf(stderr, L"usage: trustroot <certificate.der>\n");
        return 2;
    }
    std::ifstream file(argv[1], std::ios::binary);
    std::vector<BYTE> der((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (der.empty()) {
        std::fwprintf(stderr, L"trustroot: cannot read %ls\n", argv[1]);
        return 1;
    }
    HCERTSTORE store =
        CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root");
    if (!store) {
        std::fwprintf(stderr, L"trustroot: cannot open the Root store (%lu)\n", GetLastError());
        return 1;
    }
    BOOL added = CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(),
                                                  static_cast<DWORD>(der.size()),
                                                  CERT_STORE_ADD_REPLACE_EXISTING, nullptr);
    DWORD error = GetLastError();
    CertCloseStore(store, 0);
    if (!added) {
        std::fwprintf(stderr, L"trustroot: cannot add the certificate (0x%08lx)\n", error);
        return 1;
    }
    return 0;
}
