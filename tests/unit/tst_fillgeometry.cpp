#include "fillgeometry.h"

#include <gtest/gtest.h>

namespace {

using zevqml::fillGeometry;
using zevqml::FillMode;

TEST(FillGeometry, stretchUsesEverything)
{
    const auto g = fillGeometry(FillMode::Stretch, {400, 300}, {1920, 1080});
    EXPECT_EQ(g.target, QRectF(0, 0, 400, 300));
    EXPECT_EQ(g.source, QRectF(0, 0, 1, 1));
}

TEST(FillGeometry, fitCentersTheWholePicture)
{
    const auto wide = fillGeometry(FillMode::PreserveAspectFit, {400, 400}, {800, 400});
    EXPECT_EQ(wide.target, QRectF(0, 100, 400, 200));
    EXPECT_EQ(wide.source, QRectF(0, 0, 1, 1));
    const auto tall = fillGeometry(FillMode::PreserveAspectFit, {400, 400}, {100, 200});
    EXPECT_EQ(tall.target, QRectF(100, 0, 200, 400));
}

TEST(FillGeometry, cropFillsTheItemWithTheMiddle)
{
    const auto wide = fillGeometry(FillMode::PreserveAspectCrop, {400, 400}, {800, 400});
    EXPECT_EQ(wide.target, QRectF(0, 0, 400, 400));
    EXPECT_EQ(wide.source, QRectF(0.25, 0, 0.5, 1));
    const auto tall = fillGeometry(FillMode::PreserveAspectCrop, {400, 200}, {100, 100});
    EXPECT_EQ(tall.source, QRectF(0, 0.25, 1, 0.5));
}

TEST(FillGeometry, withoutAreaNothingIsShown)
{
    for (const FillMode mode :
         {FillMode::Stretch, FillMode::PreserveAspectFit, FillMode::PreserveAspectCrop}) {
        EXPECT_TRUE(fillGeometry(mode, {0, 300}, {1920, 1080}).target.isEmpty());
        EXPECT_TRUE(fillGeometry(mode, {400, 300}, {1920, 0}).target.isEmpty());
    }
}

} // namespace
