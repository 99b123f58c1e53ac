#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

// An 8-bit RGB picture for small charts, white at first, written as PNG without any graphics
// library. Colours are 0xRRGGBB; drawing outside the picture is clipped.
class Raster
{
public:
    Raster(int width, int height);

    int width() const { return m_width; }
    int height() const { return m_height; }

    void setPixel(int x, int y, quint32 rgb);
    quint32 pixel(int x, int y) const; // 0 outside
    void fillRect(int x, int y, int w, int h, quint32 rgb);
    void drawLine(int x0, int y0, int x1, int y1, quint32 rgb);

    // Text in the built-in 5x7 font, each font dot scale pixels square, from the top-left
    // corner (x, y); characters outside printable ASCII show as '?'. Vertical text reads
    // upwards, starting at the bottom-left corner (x, y).
    void drawText(int x, int y, const QString& text, quint32 rgb, int scale = 1);
    void drawTextUp(int x, int y, const QString& text, quint32 rgb, int scale = 1);
    static int textWidth(const QString& text, int scale = 1);
    static int textHeight(int scale = 1) { return 7 * scale; }

    // The PNG file: signature, IHDR (8-bit RGB), one zlib-compressed IDAT, IEND.
    QByteArray toPng() const;

private:
    int m_width;
    int m_height;
    QByteArray m_rgb;
};

// CRC-32 (ISO 3309, as PNG and zlib use it) of data.
quint32 crc32(const QByteArray& data);

// Averaged spectra on the bins of one FFT: bin k lies at k * sampleRate / fftLength Hz.
struct SpectrumChart
{
    QString title;
    double sampleRate = 0.0;
    int fftLength = 0;
    QStringList names; // one per curve, for the legend
    QVector<QVector<float>> levels; // dB, fftLength / 2 + 1 values per curve
};

// The chart drawn as a PNG: a log frequency axis from 20 Hz when the rate reaches 400 Hz or
// more (a linear one from 0 Hz otherwise), a dB axis spanning the data, grid, legend, title.
QByteArray spectrumPng(const SpectrumChart& chart, int width = 960, int height = 540);

// Tick values of an axis: "nice" steps of 1, 2 or 5 times a power of ten on a linear axis,
// 1-2-5 of each decade on a log one; only values within [low, high].
QVector<double> linearTicks(double low, double high, int approximateCount);
QVector<double> logTicks(double low, double high);
// 20, 500, 1k, 1.5k, 20k.
QString frequencyLabel(double hz);
