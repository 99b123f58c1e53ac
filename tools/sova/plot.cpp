#include "plot.h"

#include <QtEndian>

#include <array>

#include <algorithm>
#include <cmath>

namespace {

// Printable ASCII, 32 to 126: seven rows per glyph, bit 4 the leftmost of five columns.
const quint8 kFont[95][7] = {
    {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}, // space
    {0x04, 0x04, 0x04, 0x04, 0x04, 0x00, 0x04}, // !
    {0x0A, 0x0A, 0x0A, 0x00, 0x00, 0x00, 0x00}, // "
    {0x0A, 0x0A, 0x1F, 0x0A, 0x1F, 0x0A, 0x0A}, // #
    {0x04, 0x0F, 0x14, 0x0E, 0x05, 0x1E, 0x04}, // $
    {0x18, 0x19, 0x02, 0x04, 0x08, 0x13, 0x03}, // %
    {0x0C, 0x12, 0x14, 0x08, 0x15, 0x12, 0x0D}, // &
    {0x0C, 0x04, 0x08, 0x00, 0x00, 0x00, 0x00}, // '
    {0x02, 0x04, 0x08, 0x08, 0x08, 0x04, 0x02}, // (
    {0x08, 0x04, 0x02, 0x02, 0x02, 0x04, 0x08}, // )
    {0x00, 0x04, 0x15, 0x0E, 0x15, 0x04, 0x00}, // *
    {0x00, 0x04, 0x04, 0x1F, 0x04, 0x04, 0x00}, // +
    {0x00, 0x00, 0x00, 0x00, 0x0C, 0x04, 0x08}, // ,
    {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}, // -
    {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}, // .
    {0x00, 0x01, 0x02, 0x04, 0x08, 0x10, 0x00}, // /
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, // 0
    {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}, // 1
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, // 2
    {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}, // 3
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, // 4
    {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}, // 5
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, // 6
    {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}, // 7
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, // 8
    {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}, // 9
    {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}, // :
    {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x04, 0x08}, // ;
    {0x02, 0x04, 0x08, 0x10, 0x08, 0x04, 0x02}, // <
    {0x00, 0x00, 0x1F, 0x00, 0x1F, 0x00, 0x00}, // =
    {0x08, 0x04, 0x02, 0x01, 0x02, 0x04, 0x08}, // >
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x00, 0x04}, // ?
    {0x0E, 0x11, 0x01, 0x0D, 0x15, 0x15, 0x0E}, // @
    {0x0E, 0x11, 0x11, 0x11, 0x1F, 0x11, 0x11}, // A
    {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E}, // B
    {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}, // C
    {0x1C, 0x12, 0x11, 0x11, 0x11, 0x12, 0x1C}, // D
    {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}, // E
    {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10}, // F
    {0x0E, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0F}, // G
    {0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}, // H
    {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}, // I
    {0x07, 0x02, 0x02, 0x02, 0x02, 0x12, 0x0C}, // J
    {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}, // K
    {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F}, // L
    {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11}, // M
    {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11}, // N
    {0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}, // O
    {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10}, // P
    {0x0E, 0x11, 0x11, 0x11, 0x15, 0x12, 0x0D}, // Q
    {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11}, // R
    {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E}, // S
    {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}, // T
    {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}, // U
    {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}, // V
    {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0A}, // W
    {0x11, 0x11, 0x0A, 0x04, 0x0A, 0x11, 0x11}, // X
    {0x11, 0x11, 0x11, 0x0A, 0x04, 0x04, 0x04}, // Y
    {0x1F, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1F}, // Z
    {0x0E, 0x08, 0x08, 0x08, 0x08, 0x08, 0x0E}, // [
    {0x00, 0x10, 0x08, 0x04, 0x02, 0x01, 0x00}, // backslash
    {0x0E, 0x02, 0x02, 0x02, 0x02, 0x02, 0x0E}, // ]
    {0x04, 0x0A, 0x11, 0x00, 0x00, 0x00, 0x00}, // ^
    {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x1F}, // _
    {0x08, 0x04, 0x02, 0x00, 0x00, 0x00, 0x00}, // `
    {0x00, 0x00, 0x0E, 0x01, 0x0F, 0x11, 0x0F}, // a
    {0x10, 0x10, 0x16, 0x19, 0x11, 0x11, 0x1E}, // b
    {0x00, 0x00, 0x0E, 0x10, 0x10, 0x11, 0x0E}, // c
    {0x01, 0x01, 0x0D, 0x13, 0x11, 0x11, 0x0F}, // d
    {0x00, 0x00, 0x0E, 0x11, 0x1F, 0x10, 0x0E}, // e
    {0x06, 0x09, 0x08, 0x1C, 0x08, 0x08, 0x08}, // f
    {0x00, 0x0F, 0x11, 0x11, 0x0F, 0x01, 0x0E}, // g
    {0x10, 0x10, 0x16, 0x19, 0x11, 0x11, 0x11}, // h
    {0x04, 0x00, 0x0C, 0x04, 0x04, 0x04, 0x0E}, // i
    {0x02, 0x00, 0x06, 0x02, 0x02, 0x12, 0x0C}, // j
    {0x10, 0x10, 0x12, 0x14, 0x18, 0x14, 0x12}, // k
    {0x0C, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}, // l
    {0x00, 0x00, 0x1A, 0x15, 0x15, 0x11, 0x11}, // m
    {0x00, 0x00, 0x16, 0x19, 0x11, 0x11, 0x11}, // n
    {0x00, 0x00, 0x0E, 0x11, 0x11, 0x11, 0x0E}, // o
    {0x00, 0x00, 0x1E, 0x11, 0x1E, 0x10, 0x10}, // p
    {0x00, 0x00, 0x0D, 0x13, 0x0F, 0x01, 0x01}, // q
    {0x00, 0x00, 0x16, 0x19, 0x10, 0x10, 0x10}, // r
    {0x00, 0x00, 0x0E, 0x10, 0x0E, 0x01, 0x1E}, // s
    {0x08, 0x08, 0x1C, 0x08, 0x08, 0x09, 0x06}, // t
    {0x00, 0x00, 0x11, 0x11, 0x11, 0x13, 0x0D}, // u
    {0x00, 0x00, 0x11, 0x11, 0x11, 0x0A, 0x04}, // v
    {0x00, 0x00, 0x11, 0x11, 0x15, 0x15, 0x0A}, // w
    {0x00, 0x00, 0x11, 0x0A, 0x04, 0x0A, 0x11}, // x
    {0x00, 0x00, 0x11, 0x11, 0x0F, 0x01, 0x0E}, // y
    {0x00, 0x00, 0x1F, 0x02, 0x04, 0x08, 0x1F}, // z
    {0x02, 0x04, 0x04, 0x08, 0x04, 0x04, 0x02}, // {
    {0x04, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}, // |
    {0x08, 0x04, 0x04, 0x02, 0x04, 0x04, 0x08}, // }
    {0x00, 0x00, 0x08, 0x15, 0x02, 0x00, 0x00}, // ~
};

const quint8* glyph(QChar c)
{
    const ushort u = c.unicode();
    return kFont[(u >= 32 && u <= 126 ? u : '?') - 32];
}

constexpr int kAdvance = 6; // five columns and one of space, in font dots

void appendChunk(QByteArray& png, const char* type, const QByteArray& data)
{
    uchar length[4];
    qToBigEndian(quint32(data.size()), length);
    png.append(reinterpret_cast<const char*>(length), 4);
    const QByteArray body = QByteArray(type, 4) + data;
    png.append(body);
    uchar crc[4];
    qToBigEndian(crc32(body), crc);
    png.append(reinterpret_cast<const char*>(crc), 4);
}

} // namespace

quint32 crc32(const QByteArray& data)
{
    static const auto table = [] {
        std::array<quint32, 256> t {};
        for (quint32 n = 0; n < 256; ++n) {
            quint32 c = n;
            for (int k = 0; k < 8; ++k)
                c = c & 1 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[n] = c;
        }
        return t;
    }();
    quint32 c = 0xFFFFFFFFu;
    for (const char byte : data)
        c = table[(c ^ quint8(byte)) & 0xFF] ^ (c >> 8);
    return c ^ 0xFFFFFFFFu;
}

Raster::Raster(int width, int height)
    : m_width(std::max(width, 1))
    , m_height(std::max(height, 1))
    , m_rgb(m_width * m_height * 3, char(0xFF))
{
}

void Raster::setPixel(int x, int y, quint32 rgb)
{
    if (x < 0 || y < 0 || x >= m_width || y >= m_height)
        return;
    char* p = m_rgb.data() + (y * m_width + x) * 3;
    p[0] = char(rgb >> 16);
    p[1] = char(rgb >> 8);
    p[2] = char(rgb);
}

quint32 Raster::pixel(int x, int y) const
{
    if (x < 0 || y < 0 || x >= m_width || y >= m_height)
        return 0;
    const uchar* p = reinterpret_cast<const uchar*>(m_rgb.constData()) + (y * m_width + x) * 3;
    return quint32(p[0]) << 16 | quint32(p[1]) << 8 | p[2];
}

void Raster::fillRect(int x, int y, int w, int h, quint32 rgb)
{
    for (int row = std::max(y, 0); row < std::min(y + h, m_height); ++row)
        for (int col = std::max(x, 0); col < std::min(x + w, m_width); ++col)
            setPixel(col, row, rgb);
}

void Raster::drawLine(int x0, int y0, int x1, int y1, quint32 rgb)
{
    // Bresenham: every step moves one pixel along the longer axis.
    const int dx = std::abs(x1 - x0), sx = x0 < x1 ? 1 : -1;
    const int dy = -std::abs(y1 - y0), sy = y0 < y1 ? 1 : -1;
    int error = dx + dy;
    for (;;) {
        setPixel(x0, y0, rgb);
        if (x0 == x1 && y0 == y1)
            return;
        const int e2 = 2 * error;
        if (e2 >= dy) {
            error += dy;
            x0 += sx;
        }
        if (e2 <= dx) {
            error += dx;
            y0 += sy;
        }
    }
}

void Raster::drawText(int x, int y, const QString& text, quint32 rgb, int scale)
{
    for (const QChar c : text) {
        const quint8* rows = glyph(c);
        for (int row = 0; row < 7; ++row)
            for (int col = 0; col < 5; ++col)
                if (rows[row] & (0x10 >> col))
                    fillRect(x + col * scale, y + row * scale, scale, scale, rgb);
        x += kAdvance * scale;
    }
}

void Raster::drawTextUp(int x, int y, const QString& text, quint32 rgb, int scale)
{
    // Turned a quarter left: a glyph's columns run up the picture, its rows to the right.
    for (const QChar c : text) {
        const quint8* rows = glyph(c);
        for (int row = 0; row < 7; ++row)
            for (int col = 0; col < 5; ++col)
                if (rows[row] & (0x10 >> col))
                    fillRect(x + row * scale, y - (col + 1) * scale, scale, scale, rgb);
        y -= kAdvance * scale;
    }
}

int Raster::textWidth(const QString& text, int scale)
{
    return text.isEmpty() ? 0 : (text.size() * kAdvance - 1) * scale;
}

QByteArray Raster::toPng() const
{
    QByteArray png("\x89PNG\r\n\x1a\n", 8);
    QByteArray header(13, 0);
    uchar* h = reinterpret_cast<uchar*>(header.data());
    qToBigEndian(quint32(m_width), h);
    qToBigEndian(quint32(m_height), h + 4);
    h[8] = 8; // bits per sample
    h[9] = 2; // truecolour
    h[10] = 0; // deflate
    h[11] = 0; // adaptive filtering
    h[12] = 0; // not interlaced
    appendChunk(png, "IHDR", header);

    // Filter "Up" on every row but the first: charts repeat rows, which then become zeros.
    const int stride = m_width * 3;
    QByteArray raw;
    raw.reserve((stride + 1) * m_height);
    for (int y = 0; y < m_height; ++y) {
        const char* row = m_rgb.constData() + y * stride;
        if (y == 0) {
            raw.append(char(0));
            raw.append(row, stride);
            continue;
        }
        raw.append(char(2));
        const char* above = row - stride;
        for (int i = 0; i < stride; ++i)
            raw.append(char(quint8(row[i]) - quint8(above[i])));
    }
    // qCompress puts the uncompressed length in front of a zlib stream; PNG wants the stream.
    appendChunk(png, "IDAT", qCompress(raw, 9).mid(4));
    appendChunk(png, "IEND", QByteArray());
    return png;
}

QVector<double> linearTicks(double low, double high, int approximateCount)
{
    QVector<double> ticks;
    if (!(high > low) || approximateCount < 1)
        return ticks;
    const double rough = (high - low) / approximateCount;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    double step = power;
    for (const double m : {1.0, 2.0, 5.0, 10.0}) {
        step = m * power;
        if (step >= rough)
            break;
    }
    for (double v = std::ceil(low / step - 1e-9) * step; v <= high + step * 1e-9; v += step)
        ticks.append(std::fabs(v) < step * 1e-9 ? 0.0 : v);
    return ticks;
}

QVector<double> logTicks(double low, double high)
{
    QVector<double> ticks;
    if (!(low > 0.0) || !(high > low))
        return ticks;
    for (double decade = std::pow(10.0, std::floor(std::log10(low))); decade <= high;
         decade *= 10.0)
        for (const double m : {1.0, 2.0, 5.0}) {
            const double v = m * decade;
            if (v >= low * (1 - 1e-9) && v <= high * (1 + 1e-9))
                ticks.append(v);
        }
    return ticks;
}

QString frequencyLabel(double hz)
{
    if (std::fabs(hz) >= 1000.0)
        return QString::number(hz / 1000.0, 'g', 4) + QLatin1Char('k');
    return QString::number(hz, 'g', 4);
}

QByteArray spectrumPng(const SpectrumChart& chart, int width, int height)
{
    constexpr quint32 kAxis = 0x202020, kGrid = 0xD8D8D8, kMinorGrid = 0xEEEEEE;
    static const quint32 kCurves[]
        = {0x1F5FBF, 0xD0402A, 0x2E9E44, 0x8E44AD, 0xE08E0B, 0x138D90, 0x7F7F7F, 0xC2185B};
    Raster r(width, height);
    const int left = 64, right = width - 24, top = 44, bottom = height - 52;

    // Title, shrunk when the file name is long.
    const int titleScale = Raster::textWidth(chart.title, 2) <= width - 20 ? 2 : 1;
    QString title = chart.title;
    const int room = (width - 20) / (kAdvance * titleScale);
    if (title.size() > room)
        title = QStringLiteral("...") + title.right(room - 3);
    r.drawText((width - Raster::textWidth(title, titleScale)) / 2, 12, title, kAxis, titleScale);

    // Frequency axis.
    const double nyquist = chart.sampleRate / 2.0;
    const bool logAxis = nyquist >= 200.0;
    const double fLow = logAxis ? 20.0 : 0.0, fHigh = std::max(nyquist, fLow + 1.0);
    auto xOf = [&](double f) {
        const double t
            = logAxis ? std::log(f / fLow) / std::log(fHigh / fLow) : (f - fLow) / (fHigh - fLow);
        return left + int(std::lround(t * (right - left)));
    };

    // Level axis: whole 10 dB around the data, at most 120 dB deep.
    float maxLevel = -1e30f, minLevel = 1e30f;
    for (const QVector<float>& curve : chart.levels)
        for (int k = 1; k < curve.size(); ++k) {
            maxLevel = std::max(maxLevel, curve[k]);
            minLevel = std::min(minLevel, curve[k]);
        }
    if (maxLevel < minLevel)
        maxLevel = minLevel = 0.0f;
    const double dbHigh = std::ceil((maxLevel + 1.0) / 10.0) * 10.0;
    const double dbLow = std::max(std::floor(minLevel / 10.0) * 10.0, dbHigh - 120.0);
    const double dbBottom = dbLow < dbHigh ? dbLow : dbHigh - 10.0;
    auto yOf = [&](double db) {
        const double t = (std::clamp(db, dbBottom, dbHigh) - dbBottom) / (dbHigh - dbBottom);
        return bottom - int(std::lround(t * (bottom - top)));
    };

    // Grid and ticks.
    if (logAxis) {
        for (double decade = 10.0; decade < fHigh; decade *= 10.0)
            for (int m = 2; m <= 9; ++m)
                if (m * decade > fLow && m * decade < fHigh)
                    r.drawLine(xOf(m * decade), top, xOf(m * decade), bottom, kMinorGrid);
    }
    const QVector<double> fTicks = logAxis ? logTicks(fLow, fHigh) : linearTicks(fLow, fHigh, 10);
    for (const double f : fTicks) {
        const int x = xOf(f);
        r.drawLine(x, top, x, bottom, kGrid);
        r.drawLine(x, bottom, x, bottom + 4, kAxis);
        const QString label = frequencyLabel(f);
        r.drawText(x - Raster::textWidth(label) / 2, bottom + 8, label, kAxis);
    }
    const QVector<double> dbTicks
        = linearTicks(dbBottom, dbHigh, (dbHigh - dbBottom) > 60.0 ? 6 : 8);
    for (const double db : dbTicks) {
        const int y = yOf(db);
        r.drawLine(left, y, right, y, kGrid);
        r.drawLine(left - 4, y, left, y, kAxis);
        const QString label = QString::number(db, 'g', 4);
        r.drawText(left - 8 - Raster::textWidth(label), y - 3, label, kAxis);
    }
    r.drawLine(left, top, left, bottom, kAxis);
    r.drawLine(left, bottom, right, bottom, kAxis);
    r.drawLine(right, top, right, bottom, kAxis);
    r.drawLine(left, top, right, top, kAxis);
    const QString xName = QStringLiteral("Frequency (Hz)");
    r.drawText((left + right - Raster::textWidth(xName)) / 2, height - 20, xName, kAxis);
    const QString yName = QStringLiteral("Level (dB)");
    r.drawTextUp(10, (top + bottom + Raster::textWidth(yName)) / 2, yName, kAxis);

    // Curves, joined bin to bin; on a log axis the bins below 20 Hz are left out.
    const double binHz = chart.fftLength > 0 ? chart.sampleRate / chart.fftLength : 0.0;
    for (int c = 0; c < chart.levels.size(); ++c) {
        const QVector<float>& curve = chart.levels[c];
        const quint32 colour = kCurves[c % 8];
        bool first = true;
        int px = 0, py = 0;
        for (int k = 0; k < curve.size(); ++k) {
            const double f = k * binHz;
            if (f < fLow || f > fHigh)
                continue;
            const int x = xOf(f), y = yOf(curve[k]);
            if (!first)
                r.drawLine(px, py, x, y, colour);
            first = false;
            px = x;
            py = y;
        }
    }

    // Legend, top right inside the plot, on white so that curves do not run through it.
    int ly = top + 8;
    for (int c = 0; c < chart.names.size() && c < chart.levels.size(); ++c) {
        const QString& name = chart.names[c];
        const int tx = right - 8 - Raster::textWidth(name);
        r.fillRect(tx - 32, ly - 3, right - 4 - (tx - 32), 13, 0xFFFFFF);
        r.fillRect(tx - 28, ly + 2, 20, 3, kCurves[c % 8]);
        r.drawText(tx, ly, name, kAxis);
        ly += 12;
    }
    return r.toPng();
}
