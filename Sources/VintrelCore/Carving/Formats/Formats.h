#pragma once

#include "VintrelCore/Carving/Carver.h"
#include "VintrelCore/Carving/Formats/RememberedSearch.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Foundation/TimeConversion.h"
#include "VintrelCore/Model/CarvedFile.h"
#include "VintrelCore/Model/FileTypes.h"

/// What the search for one candidate's end has found, for the candidates behind it.
struct CarverSearches {
    CarverSearches(DiskSource& source, SweepWindow* window)
        : pdfStarts(source, window, "%PDF-")
        , pdfEnds(source, window, "%%EOF")
        , zipEnds(source, window, "PK\x05\x06")
        , x3fDirectories(source, window, "SECd")
    {
    }

    RememberedSearch pdfStarts;
    RememberedSearch pdfEnds;
    RememberedSearch zipEnds;
    RememberedSearch x3fDirectories;
    /// Whether the last find was made of zeros, as reads answer that are not allowed any more. What
    /// is read later only proves a find.
    bool wasExhausted = false;
};

/// A place where a file may begin: what the format readers work with. Positions and sizes are in
/// bytes, counted from the file's first one.
struct Candidate {
    RandomReader& file; ///< position 0 is the file's first byte
    const std::set<FileCategory>& categories;
    CarverSearches& searches;

    /// The file of this size that begins here. `isProved`: whether its body was followed to its
    /// end, and nothing in it is another file's.
    CarvedFile found(std::uint64_t size, std::string ext, bool isProved = false) const
    {
        searches.wasExhausted = file.isExhausted();
        return {
            .offset = file.start(), .size = size, .ext = std::move(ext), .isProved = isProved
        };
    }
    CarvedFile proved(std::uint64_t size, std::string ext) const
    {
        return found(size, std::move(ext), true);
    }
    /// The first match in [from, limit); none when there is none.
    std::optional<std::uint64_t> find(
        RememberedSearch& search, std::uint64_t from, std::uint64_t limit) const
    {
        file.addWork(8 * RandomReader::workOfSmallRead);
        const auto match = search.next(file.start() + from, file.start() + limit);
        return match ? std::optional(*match - file.start()) : std::nullopt;
    }
    /// Whether the bytes up to `end` lie on the source.
    bool fits(std::uint64_t end) const { return end <= file.size(); }
};

/// One reader for each format. It confirms that a file of its kind begins at the candidate's place
/// and follows the file's own structure to its end; none when the structure does not hold together.
/// Every walk has a limit of its own. Each format's source names the document that it follows.
namespace Formats {

using Found = std::optional<CarvedFile>;

Found jpeg(const Candidate& candidate);
Found png(const Candidate& candidate);
Found gif(const Candidate& candidate);
Found bmp(const Candidate& candidate);
Found tiff(const Candidate& candidate);
Found bigTIFF(const Candidate& candidate);
Found raf(const Candidate& candidate);
Found riff(const Candidate& candidate);
Found wideRIFF(const Candidate& candidate);
Found rar(const Candidate& candidate);
Found aiff(const Candidate& candidate);
Found zip(const Candidate& candidate);
Found pdf(const Candidate& candidate);
Found sevenZip(const Candidate& candidate);
Found sqlite(const Candidate& candidate);
Found ole(const Candidate& candidate);
Found ebml(const Candidate& candidate);
Found ogg(const Candidate& candidate);
Found mp3(const Candidate& candidate);
Found mp3WithoutTag(const Candidate& candidate);
Found rtf(const Candidate& candidate);
Found isoBMFF(const Candidate& candidate);
Found quickTime(const Candidate& candidate);
Found flac(const Candidate& candidate);
Found aac(const Candidate& candidate);
Found amr(const Candidate& candidate);
Found caf(const Candidate& candidate);
Found au(const Candidate& candidate);
Found ape(const Candidate& candidate);
Found wavPack(const Candidate& candidate);
Found midi(const Candidate& candidate);
Found mpegTS(const Candidate& candidate);
Found mpegTSWithTimes(const Candidate& candidate);
Found mpegPS(const Candidate& candidate);
Found flv(const Candidate& candidate);
Found asf(const Candidate& candidate);
Found psd(const Candidate& candidate);
Found gzip(const Candidate& candidate);
Found bzip2(const Candidate& candidate);
Found xz(const Candidate& candidate);
Found zstandard(const Candidate& candidate);
Found cabinet(const Candidate& candidate);
Found cpio(const Candidate& candidate);
Found tar(const Candidate& candidate);
Found iso9660(const Candidate& candidate);
Found mail(const Candidate& candidate);
Found contacts(const Candidate& candidate);
Found armour(const Candidate& candidate);
Found puttyKey(const Candidate& candidate);
Found openPGP(const Candidate& candidate);
Found passwordTable(const Candidate& candidate);
Found passwordExport(const Candidate& candidate);
Found kdbx(const Candidate& candidate);
Found pst(const Candidate& candidate);
Found svg(const Candidate& candidate);
Found step(const Candidate& candidate);
Found dxf(const Candidate& candidate);
Found dwg(const Candidate& candidate);
Found indd(const Candidate& candidate);
Found berkeleyDB(const Candidate& candidate);
Found jpeg2000(const Candidate& candidate);
Found jpeg2000Codestream(const Candidate& candidate);
Found djvu(const Candidate& candidate);
Found ico(const Candidate& candidate);
Found wmf(const Candidate& candidate);
Found emf(const Candidate& candidate);
Found dds(const Candidate& candidate);
Found tga(const Candidate& candidate);
Found blend(const Candidate& candidate);
Found mxf(const Candidate& candidate);
Found dv(const Candidate& candidate);
Found dpx(const Candidate& candidate);
Found stl(const Candidate& candidate);
Found mrw(const Candidate& candidate);
Found crw(const Candidate& candidate);
Found x3f(const Candidate& candidate);
Found r3d(const Candidate& candidate);
Found xcf(const Candidate& candidate);
Found plainText(const Candidate& candidate);

/// FLAC and ADTS behind a tag of ID3v2, which takes up the first `tagSize` bytes.
Found flacBehindTag(const Candidate& candidate, std::uint64_t tagSize);
Found aacBehindTag(const Candidate& candidate, std::uint64_t tagSize);

/// Whether what begins at `position` may belong to the same file as the `before` streams in front
/// of it, where programs join streams. At a sector it rather is a file of its own, but for files
/// that consist of very many streams.
constexpr bool mayJoin(std::uint64_t position, std::uint64_t before)
{
    constexpr std::uint64_t sectorSize = 512;
    constexpr std::uint64_t many = 8;
    return position % sectorSize != 0 || before == 0 || before >= many;
}

/// When a picture was taken, or else last changed, by the TIFF structure of its Exif data; the
/// camera's clock is taken for local time. None when it does not say, or says what no calendar
/// holds.
std::optional<Date> exifDate(ByteView tiff);

} // namespace Formats
