#include "ZipWriter.h"

#include "TestBed.h"

namespace {

// Little-endian: the low `bytes` bytes of `value`.
std::string Le(uint32_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i)
        out += static_cast<char>((value >> (8 * i)) & 0xFF);
    return out;
}

} // namespace

void ZipWriter::Add(const std::string& name, const std::string& data, uint16_t dosTime,
                    uint16_t dosDate) {
    uint32_t crc = 0xFFFFFFFF;
    for (unsigned char byte : data) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (0xEDB88320 & (0 - (crc & 1)));
    }
    const uint32_t size = static_cast<uint32_t>(data.size());
    // flags, method (stored), time, date, CRC, sizes, name length, extra length
    std::string fields = Le(0, 2) + Le(0, 2) + Le(dosTime, 2) + Le(dosDate, 2) + Le(~crc, 4) +
                         Le(size, 4) + Le(size, 4) + Le(static_cast<uint32_t>(name.size()), 2) +
                         Le(0, 2);
    // comment, disk, internal attributes, external attributes (a folder's bit), offset
    m_central += Le(0x02014b50, 4) + Le(20, 2) + Le(10, 2) + fields + std::string(6, '\0') +
                 Le(name.back() == '/' ? 0x10 : 0, 4) +
                 Le(static_cast<uint32_t>(m_body.size()), 4) + name;
    m_body += Le(0x04034b50, 4) + Le(10, 2) + fields + name + data;
    ++m_count;
}

bool ZipWriter::Save(const std::wstring& path) const {
    return WriteFileBytes(path, m_body + m_central + Le(0x06054b50, 4) + Le(0, 4) + Le(m_count, 2) +
                                    Le(m_count, 2) +
                                    Le(static_cast<uint32_t>(m_central.size()), 4) +
                                    Le(static_cast<uint32_t>(m_body.size()), 4) + Le(0, 2));
}
