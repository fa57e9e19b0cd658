// What an icon or a screenshot is, by its bytes: the one rule by which pack
// refuses an image and the indexer leaves one out.

#include <gtest/gtest.h>

#include <string>

#include "images/Images.hpp"

namespace {

using tsappinstall::images::claimedType;
using tsappinstall::images::Image;
using tsappinstall::images::imageType;
using tsappinstall::images::sniff;

TEST(Images, KnownByTheirBytesAndAnSvgThatCouldRunScriptIsNoImage) {
    const struct {
        std::string bytes;
        Image image;
        std::string type;
    } cases[] = {
        {std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16), Image::Png, "png"},
        {"\x89PNG\r\n", Image::Other, ""},
        {"\xFF\xD8\xFF\xE0", Image::Jpeg, "jpg"},
        {"<svg xmlns='http://www.w3.org/2000/svg'/>", Image::Svg, "svg"},
        {"\xEF\xBB\xBF<?xml version='1.0'?>\n<!-- by hand -->\n<!DOCTYPE svg>\n<SVG\twidth='1'/>",
         Image::Svg, "svg"},
        {"<svg><g id='icon'><text>Turn it on</text></g></svg>", Image::Svg, "svg"},
        {"<svgx/>", Image::Other, ""},
        {"<html><svg></svg></html>", Image::Other, ""},
        {"<!-- never closed <svg>", Image::Other, ""},
        {"", Image::Other, ""},
        {"<svg><script>alert(1)</script></svg>", Image::ScriptableSvg, ""},
        {"<svg><a href='JavaScript:alert(1)'><text>x</text></a></svg>", Image::ScriptableSvg, ""},
        {"<svg><foreignObject><p/></foreignObject></svg>", Image::ScriptableSvg, ""},
        {"<svg onload='alert(1)'/>", Image::ScriptableSvg, ""},
        {"<svg>\n<rect\tONCLICK =\"x()\"/></svg>", Image::ScriptableSvg, ""},
        {"<svg><!ENTITY x 'y'></svg>", Image::ScriptableSvg, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sniff(c.bytes), c.image) << c.bytes;
        EXPECT_EQ(imageType(c.bytes), c.type) << c.bytes;
    }
    EXPECT_EQ(claimedType("IMAGE/PNG"), "png");
    EXPECT_EQ(claimedType("image/jpg"), "jpg");
    EXPECT_EQ(claimedType("image/gif"), "");
}

}  // namespace
