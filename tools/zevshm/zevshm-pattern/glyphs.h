// Large digits with smooth edges, drawn from strokes so that they look the same at every size.
#ifndef ZEVSHM_PATTERN_GLYPHS_H
#define ZEVSHM_PATTERN_GLYPHS_H

#include <zevshm-pattern/canvas.h>

#include <map>
#include <string>

namespace zevshm {

// Usage: construct once for a size (that rasterizes every glyph), then draw strings of "0123456789:.-" with
// it. Threads: reentrant; draw() is const. Cost: draw() touches the pixels of the glyphs and allocates
// nothing.
class Glyphs
{
public:
    explicit Glyphs(int heightPixels);

    int textWidth(const std::string &text) const;
    int height() const { return m_height; }
    void draw(Canvas &canvas, int x, int y, const std::string &text, Yuv color) const;

private:
    int m_height;
    std::map<char, Mask> m_masks; // immutable after construction
};

} // namespace zevshm

#endif
