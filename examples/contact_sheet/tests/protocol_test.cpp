#include "examples/contact_sheet/protocol.h"

#include <gtest/gtest.h>

namespace {

using namespace sheet;

Answer pictureAnswer()
{
    Picture picture({2, 1}, Colour{1, 2, 3});
    return {7, DecodedPicture{{4000, 2000}, picture}};
}

TEST(Protocol, carriesAJob)
{
    const std::optional<Job> job = decodeJob(encodeJob({42, 240, "/photos/sö.jpg"}));
    ASSERT_TRUE(job);
    EXPECT_EQ(job->id, 42u);
    EXPECT_EQ(job->edge, 240u);
    EXPECT_EQ(job->path, "/photos/sö.jpg");
}

TEST(Protocol, carriesAPicture)
{
    const std::optional<Answer> answer = decodeAnswer(encodeAnswer(pictureAnswer()));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->id, 7u);
    const auto& decoded = std::get<DecodedPicture>(answer->outcome);
    EXPECT_EQ(decoded.fileSize.width, 4000u);
    EXPECT_EQ(decoded.fileSize.height, 2000u);
    EXPECT_EQ(decoded.picture.size.width, 2u);
    EXPECT_EQ(decoded.picture.size.height, 1u);
    EXPECT_EQ(decoded.picture.pixels, (std::vector<std::uint8_t>{1, 2, 3, 1, 2, 3}));
}

TEST(Protocol, carriesARefusal)
{
    const std::optional<Answer> answer = decodeAnswer(encodeAnswer({9, Refusal{"no picture"}}));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->id, 9u);
    EXPECT_EQ(std::get<Refusal>(answer->outcome).reason, "no picture");
}

TEST(Protocol, answersWithBytesEvenWhenThereIsNoReason)
{
    EXPECT_FALSE(encodeAnswer({0, Refusal{""}}).empty());
}

TEST(Protocol, refusesAPictureCutAnywhereOrWithBytesToSpare)
{
    std::vector<char> bytes = encodeAnswer(pictureAnswer());
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_FALSE(decodeAnswer({bytes.begin(), bytes.begin() + static_cast<long>(size)}))
            << "cut to " << size << " bytes";
    bytes.push_back(0);
    EXPECT_FALSE(decodeAnswer(bytes));
}

TEST(Protocol, refusesAnAnswerOfAnUnknownKind)
{
    std::vector<char> bytes = encodeAnswer({9, Refusal{"no picture"}});
    bytes[sizeof(JobId)] = 3;
    EXPECT_FALSE(decodeAnswer(bytes));
}

TEST(Protocol, refusesAJobWithoutAPathOrASize)
{
    EXPECT_FALSE(decodeJob({}));
    EXPECT_FALSE(decodeJob(encodeJob({1, 240, ""})));
    EXPECT_FALSE(decodeJob(encodeJob({1, 0, "/a.png"})));
}

} // namespace
