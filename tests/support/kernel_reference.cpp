// Double-precision references of the colour kernels.
#include "kernel_reference.h"

#include <algorithm>
#include <cmath>

namespace ruvo {
namespace test {

namespace {

enum Colour { kRed, kGreen, kBlue };

Colour colourAt(int y, int x) {
    if (y % 2 == 0) return x % 2 == 0 ? kBlue : kGreen;
    return x % 2 == 0 ? kGreen : kRed;
}

double sinc(double x) {
    if (x == 0.0) return 1.0;
    const double pix = M_PI * x;
    return std::sin(pix) / pix;
}

// Sum of lanczosWeight * sample over the samples of `colour` within 5 of (y, x).
double lanczosSum(const RawImage& raw, int y, int x, Colour colour) {
    double sum = 0.0;
    for (int dy = -5; dy <= 5; ++dy) {
        for (int dx = -5; dx <= 5; ++dx) {
            if ((dy != 0 || dx != 0) && colourAt(y + dy, x + dx) == colour) {
                sum += lanczosWeight(dy, dx) * raw.at(y + dy, x + dx);
            }
        }
    }
    return sum;
}

double shaped(double value, double gamma) { return value > 0.0 ? std::pow(value / 16383.0, gamma) : 0.0; }

double shapedChroma(double c, double gamma) {
    const double magnitude = 0.5 * std::pow(std::fabs(c), gamma);
    return c >= 0.0 ? magnitude : -magnitude;
}

double clampByte(double value) { return std::min(255.0, std::max(0.0, value)); }

}  // namespace

QuadColours referenceFallback(const RawImage& raw, unsigned tx, unsigned ty) {
    const int x = static_cast<int>(2 * tx);
    const int y = static_cast<int>(2 * ty);
    const double b = raw.at(y, x), g1 = raw.at(y, x + 1), g2 = raw.at(y + 1, x), r = raw.at(y + 1, x + 1);
    const double g = (g1 + g2) / 2.0;
    return {{{r, g, b}, {r, g1, b}, {r, g2, b}, {r, g, b}}};
}

QuadColours referenceBilinear(const RawImage& raw, unsigned tx, unsigned ty) {
    const int x = static_cast<int>(2 * tx);
    const int y = static_cast<int>(2 * ty);
    if (y < 2 || x < 2 || ty >= (raw.height - 1) / 2 || tx >= (raw.width - 1) / 2) {
        return referenceFallback(raw, tx, ty);
    }
    auto s = [&](int dy, int dx) { return raw.at(y + dy, x + dx); };
    const double third = 0.33333331, twelfth = 0.08333330;
    QuadColours q;
    q[0] = {(s(-1, -1) + s(-1, 1) + s(1, -1) + s(1, 1)) / 4.0, (s(0, -1) + s(0, 1) + s(-1, 0) + s(1, 0)) / 4.0,
            s(0, 0)};
    q[1] = {third * (s(-1, 1) + s(1, 1)) + twelfth * (s(-1, -1) + s(-1, 3) + s(1, -1) + s(1, 3)), s(0, 1),
            third * (s(0, 0) + s(0, 2)) + twelfth * (s(-2, 0) + s(-2, 2) + s(2, 0) + s(2, 2))};
    q[2] = {third * (s(1, -1) + s(1, 1)) + twelfth * (s(-1, -1) + s(-1, 1) + s(3, -1) + s(3, 1)), s(1, 0),
            third * (s(0, 0) + s(2, 0)) + twelfth * (s(0, -2) + s(0, 2) + s(2, -2) + s(2, 2))};
    q[3] = {s(1, 1), (s(1, 0) + s(0, 1) + s(1, 2) + s(2, 1)) / 4.0, (s(0, 0) + s(0, 2) + s(2, 0) + s(2, 2)) / 4.0};
    return q;
}

double lanczosWeight(int dy, int dx) {
    const double r = 0.44 * std::sqrt(static_cast<double>(dy * dy + dx * dx));
    return r < 3.0 ? sinc(r) * sinc(r / 3.0) : 0.0;
}

QuadColours referenceLanczos(const RawImage& raw, unsigned tx, unsigned ty) {
    // Nine samples of fallback on every side.
    if (2 * ty < 9 || 2 * tx < 9 || ty >= (raw.height - 8) / 2 || tx >= (raw.width - 8) / 2) {
        return referenceFallback(raw, tx, ty);
    }
    const int x = static_cast<int>(2 * tx);
    const int y = static_cast<int>(2 * ty);
    const double diagonal = 0.855256, cross = 1.565356, line = 0.782678;
    QuadColours q;
    q[0] = {lanczosSum(raw, y, x, kRed) / diagonal, lanczosSum(raw, y, x, kGreen) / cross, raw.at(y, x)};
    q[1] = {lanczosSum(raw, y, x + 1, kRed) / line, raw.at(y, x + 1), lanczosSum(raw, y, x + 1, kBlue) / line};
    q[2] = {lanczosSum(raw, y + 1, x, kRed) / line, raw.at(y + 1, x), lanczosSum(raw, y + 1, x, kBlue) / line};
    q[3] = {raw.at(y + 1, x + 1), lanczosSum(raw, y + 1, x + 1, kGreen) / cross,
            lanczosSum(raw, y + 1, x + 1, kBlue) / diagonal};
    return q;
}

QuadYuv referenceColourPath(const QuadColours& quad, const Gammas& gammas) {
    double rm = 0, gm = 0, bm = 0;
    for (const RgbValue& site : quad) {
        rm += site.r / 4.0;
        gm += site.g / 4.0;
        bm += site.b / 4.0;
    }
    const double r = shaped(rm, gammas.r), g = shaped(gm, gammas.g), b = shaped(bm, gammas.b);
    const double cb = 2.0 * (-0.1687 * r - 0.3313 * g + 0.5 * b);
    const double cr = 2.0 * (0.5 * r - 0.4187 * g - 0.0813 * b);
    QuadYuv out;
    out.u = clampByte(255.0 * (shapedChroma(cb, gammas.cr) + 0.5));
    out.v = clampByte(255.0 * (shapedChroma(cr, gammas.cb) + 0.5));
    for (size_t i = 0; i < 4; ++i) {
        const RgbValue& site = quad[i];
        out.y[i] = clampByte(255.0 * (0.299 * shaped(site.r, gammas.r) + 0.587 * shaped(site.g, gammas.g) +
                                      0.114 * shaped(site.b, gammas.b)));
    }
    return out;
}

double referenceSkinScore(double y, double u, double v) {
    struct Cluster {
        double mean[3];
        double m[3][3];
    };
    static const Cluster clusters[3] = {
        {{43.629, 123, 132},
         {{0.112634, -0.098015, -0.484461}, {-0.098015, 2.263125, 1.451641}, {-0.484461, 1.451641, 18.760693}}},
        {{114.163, 112.215, 146.627},
         {{0.00077086, -0.0010396, 0.00063102}, {-0.00010396, 0.034774, 0.021805}, {0.00063102, 0.021805, 0.039909}}},
        {{170.677, 110.914, 145.247},
         {{0.111941, -0.197147, 0.345541}, {-0.197147, 1.236792, -0.059241}, {0.345541, -0.059241, 2.415464}}},
    };
    double best = INFINITY;
    for (const Cluster& c : clusters) {
        const double d[3] = {y - c.mean[0], u - c.mean[1], v - c.mean[2]};
        double form = 0.0;
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) form += d[i] * c.m[i][j] * d[j];
        }
        best = std::min(best, form);
    }
    return best;
}

}  // namespace test
}  // namespace ruvo
