#include "VintrelCore/Content/Formats.h"
#include "VintrelCore/Content/Formats/ISOBoxes.h"
#include "VintrelCore/Content/Formats/ISOSampleCheck.h"
#include "VintrelCore/Content/Formats/ISOTracks.h"
#include "VintrelCore/Content/Walker.h"

#include <algorithm>
#include <vector>

// ISO/IEC 14496-12, the ISO base media file format. The boxes lead from one to the next; "moov"
// says where in the "mdat" boxes each sample lies, and the samples of most films begin with lengths
// of their own. No checksum covers anything, so that lengths are all the proof there is.

namespace Content::Formats {

namespace {

constexpr std::size_t maxTracks = 64;
constexpr std::size_t maxData = 1024; // "mdat" boxes whose samples are followed
constexpr std::uint64_t maxMovie = 268'435'456;

bool mayStandOutside(const ISOBox& box)
{
    constexpr std::string_view names[] = { "moov", "mdat", "free", "skip", "wide", "meta", "moof",
        "mfra", "sidx", "ssix", "styp", "prft", "uuid", "pdin", "pnot", "PICT", "udta", "emsg",
        "meco", "imda", "junk", "thum", "mpvd", "sefd" };
    return std::ranges::any_of(names, [&](std::string_view name) { return box.is(name); });
}

bool holdsBoxes(const ISOBox& box)
{
    constexpr std::string_view names[]
        = { "moov", "trak", "mdia", "minf", "stbl", "edts", "dinf", "mvex" };
    return std::ranges::any_of(names, [&](std::string_view name) { return box.is(name); });
}

/// A track with the check that follows it.
struct CheckedTrack {
    TrackSamples samples;
    SampleCheck check;

    explicit CheckedTrack(const TrackSamples& track)
        : samples(track)
    {
        check.begin(track.format(), track.sample());
    }
};

class ISOChecker final : public Walker<ISOChecker> {
public:
    bool step(FileBytes& file) { return followSamples(file) || followBoxes(file); }

private:
    /// The track whose sample comes next in the file; null when there is none.
    CheckedTrack* nextTrack()
    {
        CheckedTrack* first = nullptr;
        for (auto& track : tracks_) {
            const bool isEarlier = !track.samples.isAtEnd()
                && (!first || track.samples.sample().start < first->samples.sample().start);
            first = isEarlier ? &track : first;
        }
        return first;
    }

    bool isInData(ByteRange sample) const
    {
        return std::ranges::any_of(data_, [&](const ByteRange& data) {
            return sample.start >= data.start && sample.end <= data.end;
        });
    }

    bool followSamples(FileBytes& file)
    {
        auto* const track = nextTrack();
        if (!track || !isInData(track->samples.sample()))
            return false;
        auto& tables = isMovieAhead_ && file.withEnd() ? *file.withEnd() : file;
        const auto result = track->check.advance(file);
        if (result == SampleCheck::Result::wrong) {
            breakAt(track->check.position());
            return true;
        }
        moveTo(std::max(position(), track->check.position()));
        vouchUpTo(track->check.firm());
        if (result == SampleCheck::Result::waits)
            return false;
        if (!track->samples.next(tables))
            breakAt(position());
        else
            track->check.begin(track->samples.format(), track->samples.sample());
        return true;
    }

    bool followBoxes(FileBytes& file)
    {
        if (box_.start == place_ && box_.size > 0)
            return endBox(file);
        const auto available = file.size() - std::min(file.size(), place_);
        const auto box = ISOBox::at(file, place_);
        const bool isFirst = place_ == 0;
        const bool isNext = box
            && (isFirst ? box->is("ftyp") || mayStandOutside(*box)
                        : mayStandOutside(*box) && !(hasMetMovie_ && box->is("moov")));
        if (isNext)
            return beginBox(file, *box);
        if (available < ISOBox::maxHeaderSize && !file.isWhole())
            return false;
        return endFile();
    }

    bool beginBox(FileBytes& file, const ISOBox& box)
    {
        box_ = box;
        moveTo(std::max(position(), box.inside().start));
        vouchUpTo(place_);
        if (!box.is("mdat"))
            return true;
        hasData_ = true;
        if (data_.size() < maxData)
            data_.push_back(box.inside());
        readMovieAhead(file);
        return true;
    }

    /// What is known of the file's end may be what stands behind these data.
    void readMovieAhead(FileBytes& file)
    {
        auto* const end = hasMovie_ ? nullptr : file.withEnd();
        const auto movie = end ? ISOBox::at(*end, box_.end()) : std::nullopt;
        if (!movie || !movie->is("moov"))
            return;
        readMovie(*end, *movie);
        isMovieAhead_ = true;
    }

    /// Goes on behind a box that is there in full.
    bool endBox(FileBytes& file)
    {
        if (file.size() < box_.end())
            return false;
        place_ = box_.end();
        moveTo(std::max(position(), place_));
        hasFragments_ |= box_.is("moof");
        if (box_.is("moov"))
            meetMovie(file);
        else if (box_.is("meta"))
            readMeta(file);
        return true;
    }

    void meetMovie(FileBytes& file)
    {
        hasMetMovie_ = true;
        if (!isMovieAhead_)
            readMovie(file, box_);
        else if (!areBoxesSound(file, box_))
            isMovieAhead_ = false;
    }

    void readMovie(FileBytes& file, const ISOBox& movie)
    {
        hasMovie_ = true;
        if (movie.size > maxMovie || !areBoxesSound(file, movie))
            return;
        auto range = movie.inside();
        for (std::size_t count = 0; count < maxTracks; ++count) {
            const auto track = findBox(file, range, "trak");
            if (!track)
                return;
            if (auto samples = TrackSamples::fromTrack(file, *track))
                tracks_.emplace_back(*samples);
            range.start = track->end;
        }
    }

    void readMeta(FileBytes& file)
    {
        hasMeta_ = true;
        if (const auto samples = TrackSamples::fromItems(file, box_.inside()))
            tracks_.emplace_back(*samples);
    }

    /// Whether the boxes in "moov" fill one another exactly; the first that does not is told. None
    /// vouches for those before it: films of one camera have the same boxes at the same places.
    bool areBoxesSound(FileBytes& file, const ISOBox& movie)
    {
        constexpr int maxBoxes = 100'000;
        constexpr std::size_t maxDepth = 16;
        std::vector<std::uint64_t> ends { movie.end() };
        auto place = movie.inside().start;
        for (int count = 0; count < maxBoxes && place < movie.end(); ++count) {
            const auto box = ISOBox::at(file, place);
            if (!box || box->end() > ends.back()) {
                breakAt(place + sizeof(ISOBoxHeader) - 1);
                return false;
            }
            const bool isOpened = holdsBoxes(*box) && ends.size() < maxDepth;
            place = isOpened ? box->inside().start : box->end();
            if (isOpened)
                ends.push_back(box->end());
            while (ends.size() > 1 && place == ends.back())
                ends.pop_back();
        }
        return true;
    }

    /// The next box is no box: the file ends here, or a break lies before.
    bool endFile()
    {
        const bool isComplete
            = (hasData_ && (hasMovie_ || hasMeta_)) || (hasMovie_ && hasFragments_);
        if (!isComplete || nextTrack())
            breakAt(place_ + sizeof(ISOBoxHeader) - 1);
        else
            endAt(place_, Proof::chain);
        return true;
    }

    std::uint64_t place_ = 0; ///< of the next box
    ISOBox box_ {};           ///< that lies there, when its header was read
    std::vector<ByteRange> data_;
    std::vector<CheckedTrack> tracks_;
    bool hasData_ = false, hasMeta_ = false, hasFragments_ = false;
    bool hasMovie_ = false;     ///< whether "moov" was read
    bool hasMetMovie_ = false;  ///< whether it was met where it stands
    bool isMovieAhead_ = false; ///< whether it was read before it was met
};

} // namespace

std::unique_ptr<Checker> isoBMFF() { return std::make_unique<ISOChecker>(); }

} // namespace Content::Formats
