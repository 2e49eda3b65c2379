#include "VintrelCore/Carving/Formats/Formats.h"

#include <algorithm>
#include <bit>
#include <cstddef>

// Berkeley DB, metadata page of B-trees, hashes and queues in either byte order: pages that each
// hold their own number. Old wallets of Bitcoin programs are of this kind.

namespace Formats {

namespace {

template <std::endian order> struct Page {
    using U32 = Stored<std::uint32_t, order>;
    std::array<std::uint8_t, 8> logPosition; //  0
    U32 number;                              //  8
};

template <std::endian order> struct MetaPage {
    using U32 = Stored<std::uint32_t, order>;
    Page<order> page;                  //  0
    U32 magic, version, pageSize;      // 12, 16, 20
    std::uint8_t encryption, type;     // 24, 25
    std::array<std::uint8_t, 2> flags; // 26
    U32 freePage, lastPage;            // 28, 32
};
static_assert(sizeof(MetaPage<std::endian::little>) == 36);

constexpr std::uint32_t magics[] = { 0x0005'3162, 0x0006'1561, 0x0004'2253 };
constexpr std::uint32_t minPage = 512;
constexpr std::uint32_t maxPage = 65'536;
constexpr std::uint32_t maxVersion = 10;
constexpr std::uint32_t maxPages = 16'777'216;

/// Whether every page but those that were never written holds its number.
template <std::endian order> bool isProved(RandomReader& file, const MetaPage<order>& meta)
{
    std::uint32_t written = 0;
    for (std::uint32_t number = 1; number <= meta.lastPage && !file.isExhausted(); ++number) {
        const auto page = file.load<Page<order>>(std::uint64_t { number } * meta.pageSize);
        if (page.number != number && page.number != 0)
            return false;
        written += page.number == number ? 1 : 0;
    }
    return written > 0;
}

template <std::endian order> Found database(const Candidate& candidate)
{
    constexpr std::uint64_t wallet = 65'536; // within which the name of its only table lies
    auto& file = candidate.file;
    const auto meta = file.load<MetaPage<order>>(0);
    const std::uint32_t pageSize = meta.pageSize;
    if (std::ranges::count(magics, std::uint32_t { meta.magic }) == 0 || meta.page.number != 0
        || meta.version == 0 || meta.version > maxVersion || !std::has_single_bit(pageSize)
        || pageSize < minPage || pageSize > maxPage || meta.lastPage == 0
        || meta.lastPage > maxPages)
        return std::nullopt;
    const std::uint64_t size = (std::uint64_t { meta.lastPage } + 1) * pageSize;
    if (!candidate.fits(size) || !isProved(file, meta))
        return std::nullopt;
    const auto table = file.find("main", pageSize, std::min(size, wallet));
    return candidate.proved(size, table ? "dat" : "db");
}

} // namespace

Found berkeleyDB(const Candidate& candidate)
{
    if (auto found = database<std::endian::little>(candidate))
        return found;
    return database<std::endian::big>(candidate);
}

} // namespace Formats
