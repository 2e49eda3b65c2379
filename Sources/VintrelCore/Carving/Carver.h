#pragma once

#include "VintrelCore/Disk/RandomReader.h"
#include "VintrelCore/Foundation/Binary.h"
#include "VintrelCore/Model/CarvedFile.h"
#include "VintrelCore/Model/FileTypes.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

class DiskSource;
struct Candidate;
struct Signature;
struct CarverSearches;

/// Every category but `other`, which is never carved.
const std::set<FileCategory>& carvedCategories();

/// Tells whether a file of a known kind begins at a place, and how long it is. One carver serves a
/// whole sweep from front to back, on one thread.
class Carver {
public:
    struct SupportedType {
        FileCategory category;
        std::string_view names;
    };
    static constexpr std::array<SupportedType, 5> supportedTypes { {
        { FileCategory::image,
            "JPEG, PNG, GIF, BMP, TIFF, HEIC, AVIF, WebP, RAW (CR2, CR3, NEF, ARW, DNG, ORF, RW2, "
            "RAF, PEF)" },
        { FileCategory::video, "MP4, MOV, M4V, 3GP, AVI, MKV, WebM, OGV" },
        { FileCategory::audio, "MP3, M4A, WAV, AIFF, OGG, Opus" },
        { FileCategory::document,
            "PDF, DOCX, XLSX, PPTX, DOC, XLS, PPT, ODT, ODS, ODP, EPUB, RTF, SQLite, MSG" },
        { FileCategory::archive, "ZIP, 7-Zip, RAR, JAR" },
    } };
    /// What is found besides.
    static constexpr std::array<SupportedType, 5> furtherTypes { {
        { FileCategory::image,
            "PSD, PSB, XCF, JP2, J2K, JXL, SVG, ICO, WMF, EMF, DDS, TGA, DPX, KRA, RAW (3FR, CRW, "
            "ERF, IIQ, KDC, MRW, SR2, X3F)" },
        { FileCategory::video, "TS, MTS, MPG, VOB, WMV, FLV, MXF, DV, R3D" },
        { FileCategory::audio, "FLAC, AAC, AMR, CAF, AU, APE, WavPack, MIDI, WMA" },
        { FileCategory::document,
            "EML, MBOX, PST, VCF, ICS, ODG, KEY, PAGES, NUMBERS, SKETCH, DjVu, DXF, DWG, STEP, "
            "STL, BLEND, INDD, 3MF, KDBX, 1PUX, JSON, CSV of passwords, Berkeley DB, PEM, ASC, "
            "GPG, PPK" },
        { FileCategory::archive, "GZ, BZ2, XZ, ZST, TAR, CAB, CPIO, ISO, APK" },
    } };

    /// `window`: of the sweep, so that what it holds is not read again; none without a sweep.
    Carver(DiskSource& source, std::set<FileCategory> categories, SweepWindow* window = nullptr);
    ~Carver();

    /// The file that begins at byte `offset` of the source; none when none does, or none of a
    /// wanted kind. `head`: the bytes that lie there; with fewer than 32 there is no find.
    std::optional<CarvedFile> check(ByteView head, std::uint64_t offset);

    /// Whether a program begins at byte `offset` of the source. Programs are no finds, but what
    /// lies in front of one ends there. `head`: as of `check`.
    bool beginsProgram(ByteView head, std::uint64_t offset);

    /// From now on `heads` gets the places at which a file begins but could not be followed to its
    /// end. It must outlive this.
    void noteBrokenHeads(std::vector<BrokenHead>& heads) { brokenHeads_ = &heads; }

    /// From now on texts that have no mark are found, too. Where they end is an estimate.
    void findTexts() { findsTexts_ = true; }

    /// Whether files with this extension belong to the categories.
    bool wants(std::string_view extension) const;

    /// Whether a candidate was given up because all of them together had cost too much.
    bool hasRunOut() const { return hasRunOut_; }

    /// To be told whenever the window has moved, to `offset`. No candidate comes from before that.
    void windowMoved(std::uint64_t offset);

private:
    using FormatReader = std::optional<CarvedFile> (*)(const Candidate&);

    std::uint64_t beginCandidate(std::uint64_t offset);
    void endCandidate(std::uint64_t allowed, std::uint64_t credit);
    std::optional<CarvedFile> tryReaders(const Signature* signature, FormatReader readByInnerMark,
        ByteView head, std::uint64_t offset);
    std::optional<CarvedFile> tryFormat(FormatReader read, std::uint64_t offset);
    std::optional<CarvedFile> tryText(ByteView head, std::uint64_t offset);
    void noteBrokenHead(ByteView head, std::uint64_t offset);

    std::set<FileCategory> categories_;
    RandomReader reader_;
    std::unique_ptr<CarverSearches> searches_;
    std::vector<BrokenHead>* brokenHeads_ = nullptr; ///< none: not wanted
    bool findsTexts_ = false;
    std::uint64_t textsFrom_ = 0; ///< on the source; what lies before belongs to another find
    bool hasRunOut_ = false;
    std::uint64_t work_ = 0; ///< of the candidates that were no files, as RandomReader counts it
};
