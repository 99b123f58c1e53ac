#include <QSovaFormatDatabase>
#include <QtTest>

#include <cstring>
#include <stdexcept>

using Db = QSovaFormatDatabase;
using IntList = QList<int>;

namespace {

// Engine records built by hand, so that the expectations do not depend on the engine's tables.
_sAUDIOFormatTag makeTag(const char* name, uint32_t caps, uint32_t direction = AUDIOTAG_WRITE,
                         const char* description = "a tag", const char* mime = nullptr,
                         const char* params = nullptr)
{
    _sAUDIOFormatTag tag {};
    std::strncpy(tag.name, name, sizeof(tag.name) - 1);
    tag.description = description;
    tag.capabilities = caps;
    tag.direction = direction;
    tag.mimeTypes = mime;
    tag.specificParams = params;
    return tag;
}

_sAUDIOFormatFilter makeFilter(const _sAUDIOFormatTag* tags, int count,
                               const char* extensions = "wav|wave",
                               uint32_t flags = AUDIOFILTER_AUDIO)
{
    _sAUDIOFormatFilter filter {};
    filter.name = "WAV";
    filter.description = "Wave files";
    filter.fileDialogFilter = "Wave files (*.wav *.wave)";
    filter.extensions = extensions;
    filter.mimeType = "audio/x-wav";
    filter.tags = tags;
    filter.tagCount = count;
    filter.flags = flags;
    return filter;
}

uint8_t refuseAll(const _audio_format*) { return 0; }
uint8_t acceptAll(const _audio_format*) { return 1; }

const uint32_t monoStereo = AUDIOCAP_MONO | AUDIOCAP_STEREO;
const uint32_t cd = AUDIOCAP_RATE_44100 | AUDIOCAP_STEREO | AUDIOCAP_BITS16;

IntList ints(std::initializer_list<int> values) { return IntList(values); }

QStringList tagNames(const QList<Db::Tag>& tags)
{
    QStringList names;
    for (const Db::Tag& tag : tags)
        names << tag.formatTag();
    return names;
}

} // namespace

class TestFormatDatabase : public QObject
{
    Q_OBJECT

private slots:
    void tagLists_data();
    void tagLists();
    void tagTexts();
    void tagSupportsFormat_data();
    void tagSupportsFormat();
    void nullRecordsThrow();
    void defaults();
    void extensions_data();
    void extensions();
    void filterType_data();
    void filterType();
    void tagDirections_data();
    void tagDirections();
    void filterSupportsFormat_data();
    void filterSupportsFormat();
    void copiesShareRecords();
    void catalogue();
    void catalogueWriteQueries();
    void containersFileFilterAligned();
    void unknownOperationSelectsNothing();
};

void TestFormatDatabase::tagLists_data()
{
    QTest::addColumn<uint>("caps");
    QTest::addColumn<IntList>("rates");
    QTest::addColumn<IntList>("channels");
    QTest::addColumn<IntList>("bits");
    QTest::addColumn<bool>("dither");
    QTest::addColumn<bool>("bitRate");

    QTest::newRow("nothing") << 0u << IntList() << IntList() << IntList() << false << false;
    QTest::newRow("44.1k and any rate")
        << uint(AUDIOCAP_RATE_44100 | AUDIOCAP_RATE_ANY) << ints({44100, -1}) << IntList()
        << IntList() << false << false;
    QTest::newRow("every rate in table order")
        << 0xFFF80u
        << ints({6000, 8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000, 96000,
                 192000, -1})
        << IntList() << IntList() << false << false;
    QTest::newRow("mono and stereo listed twice")
        << monoStereo << IntList() << ints({1, 2, 1, 2}) << IntList() << false << false;
    QTest::newRow("multi stops the list")
        << uint(monoStereo | AUDIOCAP_MULTI) << IntList() << ints({1, 2, 3, 4, 5, 6, 7, 8})
        << IntList() << false << false;
    QTest::newRow("multi hides 5.1")
        << uint(AUDIOCAP_MULTI | AUDIOCAP_51) << IntList() << ints({3, 4, 5, 6, 7, 8})
        << IntList() << false << false;
    QTest::newRow("stereo and 5.1")
        << uint(AUDIOCAP_STEREO | AUDIOCAP_51) << IntList() << ints({2, 2, 51}) << IntList()
        << false << false;
    QTest::newRow("unsigned 8 bits") << uint(AUDIOCAP_BITS8) << IntList() << IntList()
                                     << ints({8}) << false << false;
    QTest::newRow("both 8-bit kinds give 8 once")
        << uint(AUDIOCAP_BITS8 | AUDIOCAP_BITS8S) << IntList() << IntList() << ints({8})
        << false << false;
    QTest::newRow("float and int 32 give 32 once")
        << uint(AUDIOCAP_FLOAT32 | AUDIOCAP_BITS32) << IntList() << IntList() << ints({32})
        << false << false;
    QTest::newRow("float alone is 32") << uint(AUDIOCAP_FLOAT32) << IntList() << IntList()
                                       << ints({32}) << false << false;
    QTest::newRow("resolutions ascending")
        << uint(AUDIOCAP_BITS24 | AUDIOCAP_BITS16 | AUDIOCAP_BITS8S | AUDIOCAP_BITS32)
        << IntList() << IntList() << ints({8, 16, 24, 32}) << false << false;
    QTest::newRow("dither") << uint(AUDIOCAP_DITHER) << IntList() << IntList() << IntList()
                            << true << false;
    QTest::newRow("bit rate") << uint(AUDIOCAP_BITRATE) << IntList() << IntList() << IntList()
                              << false << true;
}

void TestFormatDatabase::tagLists()
{
    QFETCH(uint, caps);
    QFETCH(IntList, rates);
    QFETCH(IntList, channels);
    QFETCH(IntList, bits);
    QFETCH(bool, dither);
    QFETCH(bool, bitRate);
    const _sAUDIOFormatTag record = makeTag("wav", caps);
    const _sAUDIOFormatFilter filter = makeFilter(&record, 1);
    const Db::Tag tag(&filter, &record);

    QCOMPARE(tag.supportedSampleRates(), rates);
    QCOMPARE(tag.supportedNumChannels(), channels);
    QCOMPARE(tag.supportedResolutions(), bits);
    QCOMPARE(tag.supportsDithering(), dither);
    QCOMPARE(tag.supportsBitRate(), bitRate);
}

void TestFormatDatabase::tagTexts()
{
    // The name is held in the record itself and may fill it up to the last byte but one.
    const QByteArray longName(51, 'n');
    const _sAUDIOFormatTag records[] = {
        makeTag("flac[nbits=24]", cd, AUDIOTAG_READ, "FLAC 24 bit", "audio/flac", "level=0..8"),
        makeTag(longName.constData(), cd, AUDIOTAG_READ, "\xc3\xa9t\xc3\xa9"),
    };
    const _sAUDIOFormatFilter filter = makeFilter(records, 2, "||flac|fla");

    const Db::Tag own(&filter, &records[0]);
    QVERIFY(!own.isNull());
    QCOMPARE(own.formatTag(), QStringLiteral("flac[nbits=24]"));
    QCOMPARE(static_cast<const QString&>(own), QStringLiteral("flac[nbits=24]"));
    QCOMPARE(own.description(), QStringLiteral("FLAC 24 bit"));
    QCOMPARE(own.extension(), QStringLiteral("flac"));
    QCOMPARE(own.mimeTypes(), QStringLiteral("audio/flac"));
    QCOMPARE(own.specificParams(), QStringLiteral("level=0..8"));

    const Db::Tag inherited(&filter, &records[1]);
    QCOMPARE(inherited.formatTag(), QString::fromLatin1(longName));
    QCOMPARE(inherited.description(), QString(QChar(0xe9)) + QLatin1Char('t') + QChar(0xe9));
    QCOMPARE(inherited.mimeTypes(), QStringLiteral("audio/x-wav"));
    QVERIFY(inherited.specificParams().isEmpty());

    const _sAUDIOFormatFilter bare = makeFilter(records, 1, "|");
    QVERIFY(Db::Tag(&bare, &records[0]).extension().isEmpty());
}

void TestFormatDatabase::tagSupportsFormat_data()
{
    QTest::addColumn<uint>("caps");
    QTest::addColumn<QString>("format");
    QTest::addColumn<bool>("checkResolution");
    QTest::addColumn<bool>("expected");

    const uint stereo44 = AUDIOCAP_RATE_44100 | AUDIOCAP_STEREO | AUDIOCAP_BITS16;
    QTest::newRow("exact") << stereo44 << "sr=44100,nc=2,nbits=16" << true << true;
    QTest::newRow("wrong rate") << stereo44 << "sr=48000,nc=2,nbits=16" << false << false;
    QTest::newRow("wrong channels") << stereo44 << "sr=44100,nc=1,nbits=16" << false << false;
    QTest::newRow("resolution ignored") << stereo44 << "sr=44100,nc=2,nbits=24" << false << true;
    QTest::newRow("resolution checked") << stereo44 << "sr=44100,nc=2,nbits=24" << true << false;
    QTest::newRow("no resolutions listed")
        << uint(AUDIOCAP_RATE_44100 | AUDIOCAP_STEREO) << "sr=44100,nc=2,nbits=16" << true
        << false;
    QTest::newRow("any rate") << uint(AUDIOCAP_RATE_ANY | AUDIOCAP_MONO)
                              << "sr=12345,nc=1,nbits=16" << false << true;
    QTest::newRow("multi takes 6") << uint(AUDIOCAP_RATE_ANY | AUDIOCAP_MULTI)
                                   << "sr=48000,nc=6,nbits=16" << false << true;
    QTest::newRow("5.1 bit is not 6 channels") << uint(AUDIOCAP_RATE_ANY | AUDIOCAP_51)
                                               << "sr=48000,nc=6,nbits=16" << false << false;
    QTest::newRow("no channel wildcard") << uint(AUDIOCAP_RATE_ANY) << "sr=48000,nc=1,nbits=16"
                                         << false << false;
    QTest::newRow("32 from float") << uint(AUDIOCAP_RATE_ANY | AUDIOCAP_MONO | AUDIOCAP_FLOAT32)
                                   << "sr=8000,nc=1,nbits=32" << true << true;
}

void TestFormatDatabase::tagSupportsFormat()
{
    QFETCH(uint, caps);
    QFETCH(QString, format);
    QFETCH(bool, checkResolution);
    QFETCH(bool, expected);
    const _sAUDIOFormatTag record = makeTag("wav", caps);
    const _sAUDIOFormatFilter filter = makeFilter(&record, 1);

    QCOMPARE(Db::Tag(&filter, &record).supportsFormat(QSovaAudioFormat(format), checkResolution),
             expected);
}

void TestFormatDatabase::nullRecordsThrow()
{
    const _sAUDIOFormatFilter filter = makeFilter(nullptr, 0);
    QString message;
    try {
        Db::Filter bad(nullptr);
    } catch (const std::logic_error& e) {
        message = QString::fromLatin1(e.what());
    }
    QCOMPARE(message, QStringLiteral("Null formatFilter in Filter constructor!"));
    message.clear();
    try {
        Db::Tag bad(&filter, nullptr);
    } catch (const std::logic_error& e) {
        message = QString::fromLatin1(e.what());
    }
    QCOMPARE(message, QStringLiteral("Null formatTag in Tag constructor!"));
}

void TestFormatDatabase::defaults()
{
    const Db::Filter filter;
    QVERIFY(filter.isNull());
    QVERIFY(filter.name().isEmpty());
    QVERIFY(filter.extensions().isEmpty());
    QCOMPARE(filter.type(), Db::FilterTypes());
    QVERIFY(!filter.supportsFormat(QSovaAudioFormat(44100, 2, 16), false));
    QVERIFY(!filter.supportsExtension(QString()));
    QVERIFY(!filter.supportsWriter(QString()));

    const Db::Tag tag;
    QVERIFY(tag.isNull());
    QVERIFY(tag.formatTag().isEmpty());
    QCOMPARE(tag.container(), QSovaAudioFormat::Undefined);
    QCOMPARE(tag.codec(), QSovaAudioFormat::NoCodec);
    QVERIFY(!tag.supportsDithering());
    QVERIFY(!tag.supportsBitRate());
    QVERIFY(!tag.supportsFormat(QSovaAudioFormat(44100, 2, 16), false));

    // An engine filter without tags is not null, yet has nothing to offer.
    const _sAUDIOFormatFilter empty = makeFilter(nullptr, 0);
    QVERIFY(!Db::Filter(&empty).isNull());
}

void TestFormatDatabase::extensions_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("expected");
    QTest::addColumn<QString>("probe");
    QTest::addColumn<bool>("supported");

    QTest::newRow("duplicates case-sensitive")
        << "wav||WAV|wav" << QStringList{"wav", "WAV"} << "WAV" << true;
    QTest::newRow("lower only") << "wav|wave" << QStringList{"wav", "wave"} << "WAV" << false;
    QTest::newRow("leading and trailing bars") << "|aif|aiff|" << QStringList{"aif", "aiff"}
                                               << "aiff" << true;
    QTest::newRow("empty") << "" << QStringList() << "" << false;
}

void TestFormatDatabase::extensions()
{
    QFETCH(QString, text);
    QFETCH(QStringList, expected);
    QFETCH(QString, probe);
    QFETCH(bool, supported);
    const QByteArray latin1 = text.toLatin1();
    const _sAUDIOFormatFilter record = makeFilter(nullptr, 0, latin1.constData());
    const Db::Filter filter(&record);

    QCOMPARE(filter.extensions(), expected);
    QCOMPARE(filter.supportsExtension(probe), supported);
    QCOMPARE(filter.name(), QStringLiteral("WAV"));
    QCOMPARE(static_cast<const QString&>(filter), QStringLiteral("WAV"));
    QCOMPARE(filter.fileDialogFilter(), QStringLiteral("Wave files (*.wav *.wave)"));
}

void TestFormatDatabase::filterType_data()
{
    QTest::addColumn<uint>("flags");
    QTest::addColumn<int>("type");

    QTest::newRow("none") << 0u << 0;
    QTest::newRow("audio") << uint(AUDIOFILTER_AUDIO) << int(Db::AudioFiles);
    QTest::newRow("compressed") << uint(AUDIOFILTER_COMPRESSED) << int(Db::CompressedFiles);
    QTest::newRow("raw") << uint(AUDIOFILTER_RAW) << int(Db::RawFiles);
    QTest::newRow("other bits ignored") << 0x8Fu << 0;
    QTest::newRow("audio and raw") << uint(AUDIOFILTER_AUDIO | AUDIOFILTER_RAW | 0x1)
                                   << int(Db::AudioFiles | Db::RawFiles);
}

void TestFormatDatabase::filterType()
{
    QFETCH(uint, flags);
    QFETCH(int, type);
    const _sAUDIOFormatFilter record = makeFilter(nullptr, 0, "x", flags);

    QCOMPARE(int(Db::Filter(&record).type()), type);
}

void TestFormatDatabase::tagDirections_data()
{
    QTest::addColumn<uint>("direction");
    QTest::addColumn<QString>("description");
    QTest::addColumn<bool>("reader");
    QTest::addColumn<bool>("writer");

    QTest::newRow("read") << uint(AUDIOTAG_READ) << "PCM" << true << false;
    QTest::newRow("write") << uint(AUDIOTAG_WRITE) << "PCM" << false << true;
    QTest::newRow("both") << uint(AUDIOTAG_READ | AUDIOTAG_WRITE) << "PCM" << true << true;
    QTest::newRow("neither") << 0u << "PCM" << false << false;
    QTest::newRow("hidden by dash") << uint(AUDIOTAG_READ | AUDIOTAG_WRITE) << "-" << false
                                    << false;
    QTest::newRow("dash inside a text is not hidden") << uint(AUDIOTAG_READ) << "-x" << true
                                                      << false;
}

void TestFormatDatabase::tagDirections()
{
    QFETCH(uint, direction);
    QFETCH(QString, description);
    QFETCH(bool, reader);
    QFETCH(bool, writer);
    const QByteArray text = description.toUtf8();
    // The probed tag sits between two ordinary ones, to show that the order is kept.
    const _sAUDIOFormatTag records[] = {
        makeTag("first", cd, AUDIOTAG_READ | AUDIOTAG_WRITE),
        makeTag("probe", cd, direction, text.constData()),
        makeTag("last", cd, AUDIOTAG_READ | AUDIOTAG_WRITE),
    };
    const _sAUDIOFormatFilter record = makeFilter(records, 3);
    const Db::Filter filter(&record);

    QStringList readers{"first", "last"};
    QStringList writers = readers;
    if (reader)
        readers.insert(1, QStringLiteral("probe"));
    if (writer)
        writers.insert(1, QStringLiteral("probe"));
    QCOMPARE(tagNames(filter.readerTags()), readers);
    QCOMPARE(tagNames(filter.writerTags()), writers);
    QCOMPARE(filter.supportsReader(QStringLiteral("probe")), reader);
    QCOMPARE(filter.supportsWriter(QStringLiteral("probe")), writer);
    QVERIFY(!filter.supportsReader(QStringLiteral("PROBE")));
}

void TestFormatDatabase::filterSupportsFormat_data()
{
    QTest::addColumn<int>("check"); // 0 none, 1 refuses, 2 accepts
    QTest::addColumn<uint>("writerCaps");
    QTest::addColumn<uint>("readerCaps");
    QTest::addColumn<QString>("format");
    QTest::addColumn<bool>("expected");
    QTest::addColumn<QStringList>("fittingWriters");

    const uint any6 = AUDIOCAP_RATE_ANY | AUDIOCAP_MULTI | AUDIOCAP_BITS24;
    QTest::newRow("no check, writer fits") << 0 << cd << 0u << "sr=44100,nc=2,nbits=16" << true
                                           << QStringList{"w"};
    QTest::newRow("check refuses a fitting writer")
        << 1 << cd << 0u << "sr=44100,nc=2,nbits=16" << false << QStringList{"w"};
    QTest::newRow("check accepts") << 2 << cd << 0u << "sr=44100,nc=2,nbits=16" << true
                                   << QStringList{"w"};
    QTest::newRow("only the reader fits") << 0 << cd << any6 << "sr=48000,nc=6,nbits=24"
                                          << false << QStringList();
    QTest::newRow("writer resolution ignored")
        << 0 << cd << 0u << "sr=44100,nc=2,nbits=24" << true << QStringList{"w"};
}

void TestFormatDatabase::filterSupportsFormat()
{
    QFETCH(int, check);
    QFETCH(uint, writerCaps);
    QFETCH(uint, readerCaps);
    QFETCH(QString, format);
    QFETCH(bool, expected);
    QFETCH(QStringList, fittingWriters);
    const _sAUDIOFormatTag records[] = {
        makeTag("r", readerCaps, AUDIOTAG_READ),
        makeTag("w", writerCaps, AUDIOTAG_WRITE),
    };
    _sAUDIOFormatFilter record = makeFilter(records, 2);
    record.formatCheck = check == 1 ? refuseAll : check == 2 ? acceptAll : nullptr;
    const Db::Filter filter(&record);
    const QSovaAudioFormat audio(format);

    QCOMPARE(filter.supportsFormat(audio, false), expected);
    // The per-tag list does not consult the filter's own check.
    QCOMPARE(tagNames(filter.writerTags(audio)), fittingWriters);
}

void TestFormatDatabase::copiesShareRecords()
{
    const _sAUDIOFormatTag record = makeTag("wav", cd, AUDIOTAG_READ | AUDIOTAG_WRITE);
    const _sAUDIOFormatFilter engine = makeFilter(&record, 1);
    Db::Filter filter(&engine);
    // A tag usable both ways is one record in both lists.
    QCOMPARE(&filter.readerTags().first().formatTag(), &filter.writerTags().first().formatTag());

    Db::Filter copy;
    copy = filter;
    QCOMPARE(&copy.name(), &filter.name());
    filter = Db::Filter();
    QVERIFY(filter.isNull());
    QCOMPARE(copy.name(), QStringLiteral("WAV")); // the copy keeps the record alive
}

// The checks below hold for any truthful engine catalogue.
void TestFormatDatabase::catalogue()
{
    const Db::FilterTypes all(Db::AudioFiles | Db::CompressedFiles | Db::RawFiles);
    const Db db;
    const QStringList extensions = db.supportedExtensions(all);
    QVERIFY(extensions.contains(QStringLiteral("wav")));
    QCOMPARE(QSet<QString>(extensions.begin(), extensions.end()).size(), extensions.size());
    QVERIFY(db.supportedExtensions(Db::FilterTypes()).isEmpty());

    const QList<Db::Filter> readers = db.filters(Db::Read, all);
    QVERIFY(!readers.isEmpty());
    for (const Db::Filter& filter : readers) {
        QVERIFY(!filter.isNull());
        QVERIFY2(!filter.readerTags().isEmpty(), qPrintable(filter.name()));
        QVERIFY(filter.type() & all);
    }
    for (const Db::Filter& filter : db.filters(Db::Write, Db::CompressedFiles)) {
        QVERIFY2(!filter.writerTags().isEmpty(), qPrintable(filter.name()));
        QVERIFY(filter.type() & Db::CompressedFiles);
    }
    // A second database object shares the catalogue built by the first.
    QCOMPARE(Db().supportedExtensions(all), extensions);
}

void TestFormatDatabase::catalogueWriteQueries()
{
    const Db db;
    const QSovaAudioFormat surround(48000, 6, 24);
    const QList<Db::Tag> tags = db.tags(Db::Write, surround);
    QVERIFY(!tags.isEmpty());
    for (const Db::Tag& tag : tags) {
        QVERIFY2(tag.supportsFormat(surround, false), qPrintable(tag.formatTag()));
        QVERIFY2(tag.codec() != QSovaAudioFormat::MPEG_L3, qPrintable(tag.formatTag()));
    }
    QVERIFY(db.tags(Db::Write, QSovaAudioFormat::MPEG_L3, surround).isEmpty());
    // Without a format every writer of the codec is listed; stereo fits one of them.
    const QList<Db::Tag> mp3 = db.tags(Db::Write, QSovaAudioFormat::MPEG_L3);
    for (const Db::Tag& tag : mp3)
        QCOMPARE(tag.codec(), QSovaAudioFormat::MPEG_L3);

    const QList<Db::Tag> wav = db.tags(Db::Write, QSovaAudioFormat::Wav, surround);
    QVERIFY(!wav.isEmpty());
    for (const Db::Tag& tag : wav)
        QCOMPARE(tag.container(), QSovaAudioFormat::Wav);
    const QList<QSovaAudioFormat::Container> containers = db.containers(Db::Write, surround);
    QVERIFY(containers.contains(QSovaAudioFormat::Wav));
    QCOMPARE(QSet<int>(containers.begin(), containers.end()).size(), containers.size());
}

void TestFormatDatabase::containersFileFilterAligned()
{
    Db db;
    QList<QSovaAudioFormat::Container> out{QSovaAudioFormat::Ogg}; // emptied first
    const QSovaAudioFormat stereo(44100, 2, 16);
    const QStringList labels = db.containersFileFilter(Db::Write, stereo, &out);
    QVERIFY(!labels.isEmpty());
    QCOMPARE(out.size(), labels.size());
    for (int i = 0; i < out.size(); ++i)
        QCOMPARE(labels.at(i), QSovaAudioFormat::containerLabel(out.at(i), false));
    QCOMPARE(QSet<QString>(labels.begin(), labels.end()).size(), labels.size());
    QCOMPARE(db.containersFileFilter(Db::Write, stereo, nullptr), labels);
}

void TestFormatDatabase::unknownOperationSelectsNothing()
{
    Db db;
    const auto op = Db::Operation(2);
    const QSovaAudioFormat stereo(44100, 2, 16);
    const Db::FilterTypes all(Db::AudioFiles | Db::CompressedFiles | Db::RawFiles);
    QVERIFY(db.filters(op, all).isEmpty());
    QVERIFY(db.tags(op, stereo).isEmpty());
    QVERIFY(db.tags(op, QSovaAudioFormat::Wav).isEmpty());
    QVERIFY(db.tags(op, QSovaAudioFormat::PCM16).isEmpty());
    QVERIFY(db.containers(op, stereo).isEmpty());
    QVERIFY(db.containersFileFilter(op, stereo, nullptr).isEmpty());
    // The same queries with a real operation do find something.
    QVERIFY(!db.tags(Db::Read, stereo).isEmpty());
}

QTEST_GUILESS_MAIN(TestFormatDatabase)
#include "tst_qsovaformatdatabase.moc"
