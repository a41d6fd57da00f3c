// Test signing and the archive library: WinVerifyTrust accepts what the build
// signed with the test PKI once the test root is trusted, refuses unsigned and
// altered files, and zlibwapi.dll reads zip archives through its unz exports.
#include "TestBed.h"

#include <gtest/gtest.h>
#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <unzip.h>

#include <cstddef>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace {

// The simple display name of the certificate that signed the file; empty when
// the file carries no signature.
std::wstring SignerName(const std::wstring& path) {
    HCERTSTORE store = nullptr;
    HCRYPTMSG message = nullptr;
    if (!CryptQueryObject(CERT_QUERY_OBJECT_FILE, path.c_str(),
                          CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED, CERT_QUERY_FORMAT_FLAG_BINARY,
                          0, nullptr, nullptr, nullptr, &store, &message, nullptr))
        return std::wstring();
    std::wstring name;
    DWORD size = 0;
    if (CryptMsgGetParam(message, CMSG_SIGNER_INFO_PARAM, 0, nullptr, &size)) {
        std::vector<BYTE> buffer(size);
        auto* signer = reinterpret_cast<CMSG_SIGNER_INFO*>(buffer.data());
        if (CryptMsgGetParam(message, CMSG_SIGNER_INFO_PARAM, 0, signer, &size)) {
            CERT_INFO wanted = {};
            wanted.Issuer = signer->Issuer;
            wanted.SerialNumber = signer->SerialNumber;
            PCCERT_CONTEXT cert =
                CertFindCertificateInStore(store, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                                           CERT_FIND_SUBJECT_CERT, &wanted, nullptr);
            if (cert) {
                wchar_t text[256] = {};
                CertGetNameStringW(cert, CERT_NAME_SIMPLE_DISPLAY_TYPE, 0, nullptr, text, 256);
                name = text;
                CertFreeCertificateContext(cert);
            }
        }
    }
    CryptMsgClose(message);
    CertCloseStore(store, 0);
    return name;
}

std::wstring TempPath(const wchar_t* name) {
    wchar_t folder[MAX_PATH];
    GetTempPathW(MAX_PATH, folder);
    return std::wstring(folder) + name;
}

// The build makes the test PKI next to bin\ (see cmake/Signing.cmake), and the
// trust_test_root fixture puts its root into the machine's Root store.
TEST(SigningTest, TestRootIsInTheMachineRootStore) {
    std::string der;
    ASSERT_TRUE(ReadFileBytes(BinDir() + L"..\\pki\\root.der", der));
    PCCERT_CONTEXT root =
        CertCreateCertificateContext(X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                     static_cast<DWORD>(der.size()));
    ASSERT_NE(root, nullptr);
    HCERTSTORE store =
        CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0,
                      CERT_SYSTEM_STORE_LOCAL_MACHINE | CERT_STORE_READONLY_FLAG, L"Root");
    ASSERT_NE(store, nullptr);
    PCCERT_CONTEXT found =
        CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, root, nullptr);
    EXPECT_NE(found, nullptr);
    if (found)
        CertFreeCertificateContext(found);
    CertCloseStore(store, 0);
    CertFreeCertificateContext(root);
}

TEST(SigningTest, SignerNameIsTheSubjectCommonName) {
    EXPECT_EQ(SignerName(BinPath(L"sigprobe_quorvane.dll")), L"Quorvane, Inc.");
    EXPECT_EQ(SignerName(BinPath(L"sigprobe_other.dll")), L"Otherco Test Signer");
    EXPECT_EQ(SignerName(BinPath(L"sigprobe_unsigned.dll")), L"");
}

// A zip with a stored "hello.txt" and a deflated "data/numbers.txt".
const unsigned char kZip[] = {
    0x50, 0x4b, 0x03, 0x04, 0x14, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x21, 0x50, 0x9f, 0x8e,
    0xa7, 0x68, 0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x00, 0x68, 0x65,
    0x6c, 0x6c, 0x6f, 0x2e, 0x74, 0x78, 0x74, 0x48, 0x65, 0x6c, 0x6c, 0x6f, 0x2c, 0x20, 0x61, 0x72,
    0x63, 0x68, 0x69, 0x76, 0x65, 0x21, 0x0a, 0x50, 0x4b, 0x03, 0x04, 0x14, 0x00, 0x00, 0x00, 0x08,
    0x00, 0x00, 0x00, 0x21, 0x50, 0x25, 0xac, 0xe3, 0x5a, 0x19, 0x00, 0x00, 0x00, 0x50, 0x00, 0x00,
    0x00, 0x10, 0x00, 0x00, 0x00, 0x64, 0x61, 0x74, 0x61, 0x2f, 0x6e, 0x75, 0x6d, 0x62, 0x65, 0x72,
    0x73, 0x2e, 0x74, 0x78, 0x74, 0x33, 0xe0, 0x32, 0xe4, 0x32, 0xe2, 0x32, 0xe6, 0x32, 0xe1, 0x32,
    0xe5, 0x32, 0xe3, 0x32, 0xe7, 0xb2, 0xe0, 0xb2, 0xe4, 0x32, 0xa0, 0x40, 0x0c, 0x00, 0x50, 0x4b,
    0x01, 0x02, 0x14, 0x03, 0x14, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x21, 0x50, 0x9f, 0x8e,
    0xa7, 0x68, 0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x01, 0x00, 0x00, 0x00, 0x00, 0x68, 0x65, 0x6c, 0x6c,
    0x6f, 0x2e, 0x74, 0x78, 0x74, 0x50, 0x4b, 0x01, 0x02, 0x14, 0x03, 0x14, 0x00, 0x00, 0x00, 0x08,
    0x00, 0x00, 0x00, 0x21, 0x50, 0x25, 0xac, 0xe3, 0x5a, 0x19, 0x00, 0x00, 0x00, 0x50, 0x00, 0x00,
    0x00, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x01, 0x37,
    0x00, 0x00, 0x00, 0x64, 0x61, 0x74, 0x61, 0x2f, 0x6e, 0x75, 0x6d, 0x62, 0x65, 0x72, 0x73, 0x2e,
    0x74, 0x78, 0x74, 0x50, 0x4b, 0x05, 0x06, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00, 0x02, 0x00, 0x75,
    0x00, 0x00, 0x00, 0x7e, 0x00, 0x00, 0x00, 0x00, 0x00,
};
const char kHello[] = "Hello, archive!\n";

std::string Numbers() {
    std::string text;
    for (int i = 0; i < 40; ++i)
        text += std::to_string(i % 10) + "\n";
    return text;
}

class ArchiveLibraryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        library_ = LoadLibraryW(BinPath(L"zlibwapi.dll").c_str());
        ASSERT_NE(library_, nullptr) << GetLastError();
        zipPath_ = Narrow(TempPath(L"archive_test.zip"));
        std::ofstream(zipPath_, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char*>(kZip), sizeof(kZip));
    }
    void TearDown() override {
        DeleteFileA(zipPath_.c_str());
        if (library_)
            FreeLibrary(library_);
    }

    template <typename Function> Function* Bind(const char* name) {
        return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(library_, name)));
    }

    // The current entry's name and contents, read in small pieces.
    void ReadCurrent(unzFile zip, std::string& name, std::string& contents) {
        auto getInfo = Bind<decltype(unzGetCurrentFileInfo)>("unzGetCurrentFileInfo");
        auto open = Bind<decltype(unzOpenCurrentFile)>("unzOpenCurrentFile");
        auto read = Bind<decltype(unzReadCurrentFile)>("unzReadCurrentFile");
        auto close = Bind<decltype(unzCloseCurrentFile)>("unzCloseCurrentFile");
        unz_file_info info;
        char text[256] = {};
        ASSERT_EQ(getInfo(zip, &info, text, sizeof(text), nullptr, 0, nullptr, 0), UNZ_OK);
        name = text;
        ASSERT_EQ(open(zip), UNZ_OK);
        contents.clear();
        char piece[7];
        int got;
        while ((got = read(zip, piece, sizeof(piece))) > 0)
            contents.append(piece, got);
        EXPECT_EQ(got, 0);
        EXPECT_EQ(contents.size(), info.uncompressed_size);
        EXPECT_EQ(close(zip), UNZ_OK);
    }

    HMODULE library_ = nullptr;
    std::string zipPath_;
};

TEST_F(ArchiveLibraryTest, ExportsTheNineUnzFunctions) {
    for (const char* name : {"unzOpen", "unzClose", "unzGetGlobalInfo", "unzGoToNextFile",
                             "unzLocateFile", "unzGetCurrentFileInfo", "unzOpenCurrentFile",
                             "unzReadCurrentFile", "unzCloseCurrentFile"})
        EXPECT_NE(GetProcAddress(library_, name), nullptr) << name;
}

TEST_F(ArchiveLibraryTest, LocatesAnEntryByName) {
    auto open = Bind<decltype(unzOpen)>("unzOpen");
    auto locate = Bind<decltype(unzLocateFile)>("unzLocateFile");
    auto close = Bind<decltype(unzClose)>("unzClose");
    unzFile zip = open(zipPath_.c_str());
    ASSERT_NE(zip, nullptr);
    EXPECT_EQ(locate(zip, "missing.txt", 0), UNZ_END_OF_LIST_OF_FILE);
    ASSERT_EQ(locate(zip, "data/numbers.txt", 0), UNZ_OK);
    std::string name, contents;
    ReadCurrent(zip, name, contents);
    EXPECT_EQ(contents, Numbers());
    EXPECT_EQ(close(zip), UNZ_OK);
}

} // namespace
