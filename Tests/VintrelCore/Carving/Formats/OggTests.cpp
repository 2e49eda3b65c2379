#include "Tests/VintrelCore/Carving/Carve.h"

#include <gtest/gtest.h>

TEST(Ogg, EndsWithTheLastOfItsStreams)
{
    const auto page = [](int flags, int stream, std::string_view packet) {
        return Content()
            .text("OggS")
            .zeros(1)
            .le(static_cast<unsigned>(flags), 1)
            .zeros(8)
            .le(static_cast<unsigned>(stream), 4)
            .zeros(8)
            .be(1, 1)
            .be(packet.size(), 1)
            .text(packet);
    };
    const Bytes video = Content()
                            .add(page(2, 1, "\x80theora"))
                            .add(page(2, 2, "\x01vorbis"))
                            .add(page(4, 2, "sound"))
                            .add(page(4, 1, "picture"));
    EXPECT_EQ(carve(video), "ogv " + std::to_string(video.size()));
    const Bytes unfinished = Content().add(page(2, 1, "OpusHead")).add(page(0, 1, "more"));
    EXPECT_EQ(carve(unfinished), "-");
}
