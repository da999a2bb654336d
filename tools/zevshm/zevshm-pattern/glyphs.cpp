#include <zevshm-pattern/glyphs.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace zevshm {

namespace {

struct Point
{
    double x, y;
};
using Stroke = std::vector<Point>;

// Strokes in a box 6 wide and 10 high; the pen adds its radius on every side.
constexpr double penRadius = 0.85;
constexpr double boxHeight = 10 + 2 * penRadius;

struct Shape
{
    double width;
    std::vector<Stroke> strokes;
};

const std::map<char, Shape> &shapes()
{
    static const std::map<char, Shape> table = {
        {'0',
         {6, {{{1.5, 0}, {4.5, 0}, {6, 1.5}, {6, 8.5}, {4.5, 10}, {1.5, 10}, {0, 8.5}, {0, 1.5}, {1.5, 0}}}}},
        {'1', {6, {{{1, 2}, {3.2, 0}, {3.2, 10}}, {{1, 10}, {5.4, 10}}}}},
        {'2', {6, {{{0, 1.5}, {1.5, 0}, {4.5, 0}, {6, 1.5}, {6, 3.6}, {0, 10}, {6, 10}}}}},
        {'3',
         {6,
          {{{0, 1.5}, {1.5, 0}, {4.5, 0}, {6, 1.5}, {6, 3.6}, {4.6, 4.9}, {2.4, 4.9}},
           {{4.6, 4.9}, {6, 6.2}, {6, 8.5}, {4.5, 10}, {1.5, 10}, {0, 8.5}}}}},
        {'4', {6, {{{4.6, 10}, {4.6, 0}, {0, 7}, {6.2, 7}}}}},
        {'5',
         {6,
          {{{5.6, 0},
            {0.4, 0},
            {0.2, 4.2},
            {4.5, 4.2},
            {6, 5.7},
            {6, 8.5},
            {4.5, 10},
            {1.5, 10},
            {0, 8.5}}}}},
        {'6',
         {6,
          {{{5.6, 1},
            {4.5, 0},
            {1.5, 0},
            {0, 1.5},
            {0, 8.5},
            {1.5, 10},
            {4.5, 10},
            {6, 8.5},
            {6, 6},
            {4.5, 4.5},
            {1.5, 4.5},
            {0, 6}}}}},
        {'7', {6, {{{0, 0}, {6, 0}, {2.2, 10}}}}},
        {'8',
         {6,
          {{{1.5, 4.9}, {0, 3.5}, {0, 1.5}, {1.5, 0}, {4.5, 0}, {6, 1.5}, {6, 3.5}, {4.5, 4.9}, {1.5, 4.9}},
           {{1.5, 4.9}, {0, 6.3}, {0, 8.5}, {1.5, 10}, {4.5, 10}, {6, 8.5}, {6, 6.3}, {4.5, 4.9}}}}},
        {'9',
         {6,
          {{{0.4, 9},
            {1.5, 10},
            {4.5, 10},
            {6, 8.5},
            {6, 1.5},
            {4.5, 0},
            {1.5, 0},
            {0, 1.5},
            {0, 4},
            {1.5, 5.5},
            {4.5, 5.5},
            {6, 4}}}}},
        {':', {1, {{{0.5, 3}, {0.5, 3}}, {{0.5, 8}, {0.5, 8}}}}},
        {'.', {1, {{{0.5, 10}, {0.5, 10}}}}},
        {'-', {4, {{{0.3, 5}, {3.7, 5}}}}},
        {' ', {2, {}}},
    };
    return table;
}

// Squared, because the nearest stroke is the same and a root a pixel is enough.
double squaredDistance(Point p, Point a, Point b)
{
    const double dx = b.x - a.x;
    const double dy = b.y - a.y;
    const double length2 = dx * dx + dy * dy;
    const double t = length2 > 0 ? std::clamp(((p.x - a.x) * dx + (p.y - a.y) * dy) / length2, 0.0, 1.0) : 0;
    const double ex = p.x - a.x - t * dx;
    const double ey = p.y - a.y - t * dy;
    return ex * ex + ey * ey;
}

Mask rasterize(const Shape &shape, int height)
{
    const double scale = height / boxHeight; // pixels a unit
    Mask mask;
    mask.height = height;
    mask.width = std::max(1, static_cast<int>(std::ceil((shape.width + 2 * penRadius) * scale)));
    mask.alpha.resize(static_cast<size_t>(mask.width) * static_cast<size_t>(mask.height));
    for (int j = 0; j < mask.height; ++j) {
        for (int i = 0; i < mask.width; ++i) {
            const Point p{(i + 0.5) / scale - penRadius, (j + 0.5) / scale - penRadius};
            double nearest = std::numeric_limits<double>::max();
            for (const Stroke &stroke : shape.strokes) {
                for (size_t k = 1; k < stroke.size(); ++k)
                    nearest = std::min(nearest, squaredDistance(p, stroke[k - 1], stroke[k]));
            }
            const double coverage = std::clamp((penRadius - std::sqrt(nearest)) * scale + 0.5, 0.0, 1.0);
            mask.alpha[static_cast<size_t>(j) * static_cast<size_t>(mask.width) + static_cast<size_t>(i)] =
                static_cast<uint8_t>(std::lround(255 * coverage));
        }
    }
    return mask;
}

} // namespace

Glyphs::Glyphs(int heightPixels) : m_height(std::max(heightPixels, 4))
{
    for (const auto &[character, shape] : shapes())
        m_masks[character] = rasterize(shape, m_height);
}

int Glyphs::textWidth(const std::string &text) const
{
    const int gap = m_height / 10;
    int width = 0;
    for (char character : text) {
        if (const auto found = m_masks.find(character); found != m_masks.end())
            width += found->second.width + gap;
    }
    return width > 0 ? width - gap : 0;
}

void Glyphs::draw(Canvas &canvas, int x, int y, const std::string &text, Yuv color) const
{
    for (char character : text) {
        const auto found = m_masks.find(character);
        if (found == m_masks.end())
            continue;
        canvas.blend(x, y, found->second, color);
        x += found->second.width + m_height / 10;
    }
}

} // namespace zevshm
