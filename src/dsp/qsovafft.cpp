#include "qsovafft.h"

#include "qsovaoptions.h"
#include "qsovavector.h"

#include <sova/dsp.h>

#include <QDebug>
#include <QSharedData>

#include <algorithm>
#include <stdexcept>

namespace {

// This class numbers the flat-top, Gaussian and Kaiser windows 7, 8, 9; the DSP library 9, 7, 8.
const int kToDspb[11] = {0, 1, 2, 3, 4, 5, 6, 9, 7, 8, 10};

DSPBWINDOWTYPE toDspb(QSovaFft::WinType type)
{
    if (type < 0 || type > 10)
        throw std::logic_error("Invalid QSovaFft::WinType");
    return kToDspb[type];
}

} // namespace

struct QSovaFft::Private : public QSharedData {
    Config config;
    bool toDecibels = false;
    DSPB_FFTPROC* processor = nullptr;
    QSovaVector<float, 16>* window = nullptr;
    double normFactor = 1.0;

    Private() = default;
    Private(const Private&) = delete;
    ~Private()
    {
        delete window;
        if (processor)
            DSPB_FFTProcDestroy(processor);
    }
};

QSovaFft::Config::Config(const QString& text)
{
    fftLength = QSova::getIntegerValueFromString(text, QStringLiteral("fftlen"), 256);
    fftLength = 2 * QSova::getIntegerValueFromString(text, QStringLiteral("numbins"), fftLength / 2);
    windowSize = QSova::getIntegerValueFromString(text, QStringLiteral("winsize"), 256);
    // The string reader answers an absent key with an empty text: that means the default.
    QString name = QSova::getStringValueFromString(text, QStringLiteral("wintype"),
                                                   winTypeToString(defaultWinType()));
    if (name.isEmpty())
        name = winTypeToString(defaultWinType());
    windowType = winTypeFromString(name);
    dynamicRange = QSova::getFloatValueFromString(text, QStringLiteral("dynrange"), 120.0f);
}

QSovaFft::Config::operator QString() const
{
    return QStringLiteral("fftlen=%1,winsize=%2,wintype=%3,dynrange=%4")
        .arg(fftLength)
        .arg(windowSize)
        .arg(winTypeString())
        .arg(dynamicRange);
}

QString QSovaFft::Config::winTypeString() const
{
    return winTypeToString(windowType);
}

bool QSovaFft::Config::operator==(const Config& other) const
{
    return fftLength == other.fftLength && windowSize == other.windowSize
           && windowType == other.windowType && dynamicRange == other.dynamicRange;
}

QSovaFft::WinType QSovaFft::defaultWinType()
{
    return Config().windowType;
}

QString QSovaFft::winTypeToString(WinType type)
{
    return QString::fromLocal8Bit(DSPB_GetWindowName(toDspb(type)));
}

QSovaFft::WinType QSovaFft::winTypeFromString(const QString& name)
{
    return winTypeFromDspbWinType(DSPB_GetWindowType(name.toLocal8Bit().constData()));
}

QSovaFft::WinType QSovaFft::winTypeFromDspbWinType(int value)
{
    if (value < 0 || value > 10)
        throw std::logic_error("Invalid DSPBWINDOWTYPE");
    return static_cast<WinType>(std::find(kToDspb, kToDspb + 11, value) - kToDspb);
}

QStringList QSovaFft::getWindowNameList()
{
    QStringList names;
    for (int type = 0; type <= 10; ++type)
        names << winTypeToString(static_cast<WinType>(type));
    return names;
}

QSovaFft::QSovaFft() : d(new Private) {}

QSovaFft::QSovaFft(const Config& config, bool toDecibels) : d(new Private)
{
    d->config = config;
    d->toDecibels = toDecibels;
    const DSPBWINDOWTYPE windowType = toDspb(config.windowType);
    d->processor = DSPB_FFTProcCreate(config.fftLength);
    const int length = std::max(config.fftLength, config.windowSize);
    if (length > 0) {
        d->window = new QSovaVector<float, 16>(unsigned(length));
        d->window->zero();
        if (!DSPB_CreateWindow(windowType, d->window->data(), config.windowSize)) {
            delete d->window;
            d->window = nullptr;
        }
    }
    d->normFactor = DSPB_GetWindowNormFactor(d->window ? d->window->constData() : nullptr,
                                             config.windowSize);
}

QSovaFft::QSovaFft(const QSovaFft& other) = default;

QSovaFft& QSovaFft::operator=(const QSovaFft& other) = default;

QSovaFft::~QSovaFft() = default;

bool QSovaFft::isValid() const
{
    return d->processor && d->window;
}

const QSovaFft::Config& QSovaFft::config() const
{
    return d->config;
}

void QSovaFft::psd(const QVector<float>& in, QVector<float>* out) const
{
    // The processor reads fftLength samples and writes fftLength/2 + 1: room for both, the
    // block zero-padded when it is shorter.
    const int fftLength = d->config.fftLength;
    const unsigned length = unsigned(std::max(in.size(), fftLength));
    QSovaVector<float, 16> block(length);
    std::copy(in.constBegin(), in.constEnd(), block.data());
    block.zero(unsigned(in.size()), length);
    block *= *d->window; // coefficients past the window size are zero: those samples drop out
    const int n = DSPB_FFTProcExecutePSDEx(d->processor, block.data(), block.data(), 0);
    if (d->toDecibels)
        DSPB_PSDtoDB(fftLength, block.data(), block.data(), 0, d->normFactor,
                     d->config.dynamicRange);
    out->resize(n);
    std::copy(block.constData(), block.constData() + n, out->data());
}

QVector<float> QSovaFft::operator()(const QVector<float>& in) const
{
    QVector<float> result;
    psd(in, &result);
    return result;
}

void QSovaFft::convertPsdToDb(const QVector<float>& psd, QVector<float>* out, float scale) const
{
    if (psd.isEmpty())
        return;
    const int length = psd.size();
    QSovaVector<float, 16> block(psd.constData(), unsigned(length));
    block *= scale;
    // The FFT length that gives this many bins.
    DSPB_PSDtoDB(2 * length - 2, block.data(), block.data(), 0, d->normFactor,
                 d->config.dynamicRange);
    out->resize(length);
    std::copy(block.constData(), block.constData() + length, out->data());
}

void QSovaFft::accPsd(QVector<float>& acc, const QVector<float>& psd)
{
    acc.resize(psd.size());
    for (int i = 0; i < psd.size(); ++i)
        acc[i] += psd[i];
}

QDebug operator<<(QDebug debug, const QSovaFft::Config& config)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "QSovaFft::Config(" << QString(config) << ')';
    return debug;
}
