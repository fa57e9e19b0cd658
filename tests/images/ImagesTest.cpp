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
using tsappinstall::images::svgRefusal;

const std::string kSvg = "<svg xmlns='http://www.w3.org/2000/svg'";
const std::string kXhtml = "'http://www.w3.org/1999/xhtml'";

TEST(Images, KnownByTheirBytes) {
    const struct {
        std::string bytes;
        Image image;
        std::string type;
    } cases[] = {
        {std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16), Image::Png, "png"},
        {"\x89PNG\r\n", Image::Other, ""},
        {"\xFF\xD8\xFF\xE0", Image::Jpeg, "jpg"},
        {kSvg + "/>", Image::Svg, "svg"},
        {"<svgx/>", Image::Other, ""},
        {"<html><svg></svg></html>", Image::Other, ""},
        {"<!-- never closed <svg>", Image::Other, ""},
        {"", Image::Other, ""},
        {"<svg><script>alert(1)</script></svg>", Image::RefusedSvg, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sniff(c.bytes), c.image) << c.bytes;
        EXPECT_EQ(imageType(c.bytes), c.type) << c.bytes;
    }
    EXPECT_EQ(claimedType("IMAGE/PNG"), "png");
    EXPECT_EQ(claimedType("image/jpg"), "jpg");
    EXPECT_EQ(claimedType("image/gif"), "");
}

// Icons as editors write them: paths, gradients, local references, CSS
// colours and transforms, text.
TEST(Images, InertSvgsAreKept) {
    const std::string cases[] = {
        kSvg +
            " viewBox='0 0 24 24'><defs><linearGradient id='a' x2='1'>"
            "<stop offset='0' stop-color='#f00'/><stop offset='1' stop-color='rgb(0,0,255)'/>"
            "</linearGradient><path id='p' d='M0 0h24v24z'/></defs>"
            "<use href='#p' fill='url(#a)'/><title>Icon</title></svg>",
        kSvg +
            " xmlns:xlink='http://www.w3.org/1999/xlink'><use xlink:href='#p'/>"
            "<circle cx='12' cy='12' r='4' transform='rotate(45 12 12)'"
            " style='fill: url(\"#a\"); stroke: hsl(0, 50%, 50%)'/></svg>",
        "\xEF\xBB\xBF<?xml version='1.0' encoding='UTF-8'?>\n<!-- by hand -->\n" + kSvg +
            " xml:space='preserve'><style>.a { fill: #fff }</style>"
            "<text class='a' x='1' y='2'>Turn it on (caf\xC3\xA9)</text></svg>",
    };
    for (const std::string& bytes : cases) {
        EXPECT_EQ(svgRefusal(bytes), "") << bytes;
        EXPECT_EQ(sniff(bytes), Image::Svg) << bytes;
    }
}

// Each way to run script, or to fetch, from an SVG opened on its own, with
// the reason it is refused: the allowlist must name the hidden part, not
// refuse by accident.
TEST(Images, HostileSvgsAreRefusedForWhatTheyHide) {
    const std::string doctype = "it declares a document type (<!DOCTYPE>)";
    const struct {
        std::string name, bytes, refusal;
    } cases[] = {
        {"prefixed script",
         kSvg + "><q:script xmlns:q='http://www.w3.org/2000/svg'>alert(1)"
                "</q:script></svg>",
         "it holds the element <q:script>"},
        {"XHTML script", kSvg + " xmlns:h=" + kXhtml + "><h:script>alert(1)</h:script></svg>",
         "it holds the element <h:script> outside the SVG namespace"},
        {"iframe srcdoc",
         kSvg + "><foreignObject><iframe xmlns=" + kXhtml +
             " srcdoc='&lt;script&gt;alert(1)&lt;/script&gt;'/>"
             "</foreignObject></svg>",
         "it holds the element <foreignObject>"},
        {"colon as reference", kSvg + "><use href='javascript&#58;alert(1)'/></svg>",
         "it holds a link outside the image: href on <use>"},
        {"j as reference",
         kSvg + " xmlns:x='http://www.w3.org/1999/xlink'><use x:href='&#x6A;avascript:x()'/></svg>",
         "it holds a link outside the image: x:href on <use>"},
        {"tab in scheme", kSvg + "><use href='java&#9;script:alert(1)'/></svg>",
         "it holds a link outside the image: href on <use>"},
        {"link to a script", kSvg + "><a href='javascript:alert(1)'><rect/></a></svg>",
         "it holds the element <a>"},
        {"script", kSvg + "><script>alert(1)</script></svg>", "it holds the element <script>"},
        {"CDATA script", kSvg + "><script><![CDATA[alert(1)]]></script></svg>",
         "it holds the element <script>"},
        {"upper-case script", kSvg + "><SCRIPT>alert(1)</SCRIPT></svg>",
         "it holds the element <SCRIPT>"},
        {"onload", kSvg + " onload='alert(1)'/>", "it holds the attribute onload on <svg>"},
        {"onclick", kSvg + ">\n<rect\tONCLICK =\"x()\"/></svg>",
         "it holds the attribute ONCLICK on <rect>"},
        {"data use", kSvg + "><use href='data:image/svg+xml,&lt;svg/&gt;#x'/></svg>",
         "it holds a link outside the image: href on <use>"},
        {"remote image", kSvg + "><image href='http://example.com/a.png'/></svg>",
         "it holds the element <image>"},
        {"animated href", kSvg + "><animate attributeName='href' values='javascript:x()'/></svg>",
         "it holds the element <animate>"},
        {"set handler", kSvg + "><set attributeName='onclick' to='alert(1)'/></svg>",
         "it holds the element <set>"},
        {"entity script",
         "<!DOCTYPE svg [<!ENTITY s '&#60;script>alert(1)&#60;/script>'>]>" + kSvg + ">&s;</svg>",
         doctype},
        {"doctype", "<!DOCTYPE svg>" + kSvg + "/>", doctype},
        {"import", kSvg + "><style>@import url(http://example.com/a.css);</style></svg>",
         "it holds a CSS at-rule in <style>"},
        {"CDATA import", kSvg + "><style><![CDATA[@import 'a.css';]]></style></svg>",
         "it holds a CSS at-rule in <style>"},
        {"split url", kSvg + "><style>rect { fill: ur<!---->l(http://example.com/) }</style></svg>",
         "it holds a url() outside the image in <style>"},
        {"xml:base", kSvg + "><g xml:base='javascript:x()//'><use href='#a'/></g></svg>",
         "it holds the attribute xml:base on <g>"},
        {"remote paint", kSvg + "><rect fill='url(http://example.com/p.svg#g)'/></svg>",
         "it holds a url() outside the image in fill on <rect>"},
        {"remote style", kSvg + "><rect style='fill: URL( \"//example.com/p.svg#g\" )'/></svg>",
         "it holds a url() outside the image in style on <rect>"},
        {"escaped url", kSvg + "><rect style='fill: u\\72l(http://example.com/)'/></svg>",
         "it holds a CSS escape in style on <rect>"},
        {"expression", kSvg + "><rect style='width: expression(alert(1))'/></svg>",
         "it holds the word expression in style on <rect>"},
        {"image-set", kSvg + "><style>rect { fill: image-set('a.png' 1x) }</style></svg>",
         "it holds the CSS function image-set() in <style>"},
        {"style sheet", "<?xml-stylesheet type='text/xsl' href='a.xsl'?>" + kSvg + "/>",
         "it holds the processing instruction <?xml-stylesheet?>"},
        {"filter fetch", kSvg + "><filter><feImage href='http://example.com/'/></filter></svg>",
         "it holds the element <feImage>"},
        {"no namespace", "<svg><rect/></svg>",
         "it holds the element <svg> outside the SVG namespace"},
        {"XML 1.1", "<?xml version='1.1'?>" + kSvg + "/>",
         "the XML parser refuses it: the XML document is XML 1.1, not XML 1.0"},
        {"Latin-1", "<?xml version='1.0' encoding='ISO-8859-1'?>" + kSvg + "/>",
         "it is not UTF-8 but ISO-8859-1"},
        {"not XML", kSvg + "><rect></svg>", "the XML parser refuses it: line 1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(svgRefusal(c.bytes).substr(0, c.refusal.size()), c.refusal);
        EXPECT_EQ(sniff(c.bytes), Image::RefusedSvg);
        EXPECT_EQ(imageType(c.bytes), "");
    }
}

}  // namespace
