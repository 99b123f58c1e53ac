#include <QSovaAudioFormat>
#include <QSovaUtils>
#include <QtTest>

class tst_QSovaUtils : public QObject {
    Q_OBJECT

private slots:
    void capitalize_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        QTest::newRow("separators") << "tape_echo long" << "Tape_Echo Long";
        QTest::newRow("single letters") << "a b_c" << "A B_C";
        QTest::newRow("trailing separator") << "reverb_" << "Reverb_";
        QTest::newRow("doubled separators") << "a__b  c" << "A__B  C";
        QTest::newRow("nothing lowered") << "mIX_dOWN" << "MIX_DOWN";
        QTest::newRow("empty gives one NUL") << "" << QString(QChar(0));
        QTest::newRow("non-ascii") << QString::fromUtf8("écho_öl") << QString::fromUtf8("Écho_Öl");
    }

    void capitalize()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(QSova::capitalize(text), expected);
    }

    void formattedDataSize_data()
    {
        QTest::addColumn<qint64>("size");
        QTest::addColumn<int>("precision");
        QTest::addColumn<QString>("expected");
        QTest::newRow("zero") << qint64(0) << 2 << "0 bytes";
        QTest::newRow("1023") << qint64(1023) << 2 << "1023 bytes";
        QTest::newRow("1024") << qint64(1024) << 0 << "1 kB";
        QTest::newRow("1536") << qint64(1536) << 2 << "1.50 kB";
        QTest::newRow("just below a MB") << qint64(1048575) << 3 << "1023.999 kB";
        QTest::newRow("1 MB") << qint64(1048576) << 1 << "1.0 MB";
        QTest::newRow("5 MB") << qint64(5242880) << 2 << "5.00 MB";
        // The kB remainder is dropped on the way to MB.
        QTest::newRow("remainder dropped") << qint64(1048576 + 1023) << 6 << "1.000000 MB";
        QTest::newRow("3 GB") << qint64(3) * 1024 * 1024 * 1024 << 1 << "3.0 GB";
        QTest::newRow("largest") << std::numeric_limits<qint64>::max() << 1 << "8.0 EB";
        QTest::newRow("negative") << qint64(-5) << 2 << "-";
    }

    void formattedDataSize()
    {
        QFETCH(qint64, size);
        QFETCH(int, precision);
        QFETCH(QString, expected);
        QCOMPARE(QSova::formattedDataSize(size, precision), expected);
    }

    void stringEncoding_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("empty") << "";
        QTest::newRow("plain") << "plain text";
        QTest::newRow("option syntax") << "a=1,b=[2,3]";
        QTest::newRow("quotes and backslashes") << "say \"hi\" \\ 'there'";
        QTest::newRow("controls") << "line\nnext\ttab\r\x01";
        QTest::newRow("unicode") << QString::fromUtf8("Grüße – 音");
    }

    void stringEncoding()
    {
        QFETCH(QString, text);
        const QString encoded = QSova::stringEncode(text);
        // Outside its escapes the encoded text holds nothing an option string would split on.
        QString bare = encoded;
        bare.remove(QRegularExpression(QStringLiteral("\\\\.")));
        QVERIFY2(!bare.contains(QRegularExpression(QStringLiteral("[,=\\[\\]\"'\\x00-\\x1f]"))),
                 qPrintable(encoded));
        QCOMPARE(QSova::stringDecode(encoded), text);
    }

    void url_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("encoded");
        QTest::newRow("unreserved") << "aZ09-._~" << "aZ09-._~";
        QTest::newRow("blank and slash") << "a b/c" << "a%20b%2Fc";
        QTest::newRow("utf-8 bytes") << QString::fromUtf8("é") << "%C3%A9";
        QTest::newRow("percent") << "100%" << "100%25";
        QTest::newRow("plus stays") << "a+b" << "a%2Bb";
    }

    void url()
    {
        QFETCH(QString, text);
        QFETCH(QString, encoded);
        QCOMPARE(QSova::urlEncode(text), encoded);
        QCOMPARE(QSova::urlDecode(encoded), text);
    }

    void urlDecodeKeepsMalformed()
    {
        QCOMPARE(QSova::urlDecode(QStringLiteral("50%+a+b%zz%4")),
                 QStringLiteral("50%+a+b%zz%4"));
    }

    void join_data()
    {
        QTest::addColumn<QList<QByteArray>>("list");
        QTest::addColumn<QByteArray>("separator");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("empty list") << QList<QByteArray>{} << QByteArray(",") << QByteArray();
        QTest::newRow("one") << QList<QByteArray>{"a"} << QByteArray(", ") << QByteArray("a");
        QTest::newRow("three") << QList<QByteArray>{"a", "", "c"} << QByteArray("::")
                               << QByteArray("a::::c");
    }

    void join()
    {
        QFETCH(QList<QByteArray>, list);
        QFETCH(QByteArray, separator);
        QFETCH(QByteArray, expected);
        QCOMPARE(QSova::QByteArrayList_join(list, separator), expected);
    }

    void defaultDithering()
    {
        QCOMPARE(QSova::defaultDithering(), QStringLiteral("triangular"));
        QVERIFY(AUDIODITHER_SetDefaultKind(AUDIODITHER_NONE));
        QCOMPARE(QSova::defaultDithering(), QStringLiteral("none"));
        QVERIFY(AUDIODITHER_SetDefaultKind(AUDIODITHER_TRIANGULAR));
    }

    void mimeTypes_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<uint>("container"); // of the format passed along
        QTest::addColumn<QString>("mime");
        QTest::newRow("wav") << "wav" << 0u << "audio/wav";
        QTest::newRow("name wins over format") << "flac" << uint(AUDIO_CONTAINER_WAV)
                                               << "audio/flac";
        QTest::newRow("options ignored") << "wav[codec=ulaw]" << 0u << "audio/wav";
        QTest::newRow("empty name takes container") << "" << uint(AUDIO_CONTAINER_FLAC)
                                                    << "audio/flac";
        QTest::newRow("empty name and none") << "" << 0u << "";
        QTest::newRow("unknown") << "nosuchformat" << 0u << "";
    }

    void mimeTypes()
    {
        QFETCH(QString, name);
        QFETCH(uint, container);
        QFETCH(QString, mime);
        _audio_format record = AUDIO_FormatEx(44100, 2, 16);
        record.container = container;
        QCOMPARE(QSova::audioFormatToMimeType(name, QSovaAudioFormat(&record)), mime);
        if (container == 0)
            QCOMPARE(QSova::audioFormatToMimeType(name), mime);
        if (!mime.isEmpty() && !name.isEmpty() && !name.contains(QLatin1Char('[')))
            QCOMPARE(QSova::mimeTypeToAudioFormat(mime), name);
    }

    void mimeTypeToFormat_data()
    {
        QTest::addColumn<QString>("mime");
        QTest::addColumn<QString>("name");
        QTest::newRow("alias") << "audio/x-wav" << "wav";
        QTest::newRow("parameters and case") << "Audio/FLAC; rate=44100" << "flac";
        QTest::newRow("unknown") << "text/plain" << "";
        QTest::newRow("empty") << "" << "";
    }

    void mimeTypeToFormat()
    {
        QFETCH(QString, mime);
        QFETCH(QString, name);
        QCOMPARE(QSova::mimeTypeToAudioFormat(mime), name);
    }

    void locateConfigFile()
    {
        const QString name = QStringLiteral("tst_qsovautils_%1.conf")
                                 .arg(QCoreApplication::applicationPid());
        QCOMPARE(QSova::locateConfigFile(name), QString());

        QTemporaryDir cwd;
        QVERIFY(cwd.isValid());
        const QString previous = QDir::currentPath();
        QVERIFY(QDir::setCurrent(cwd.path()));
        QFile inCwd(cwd.filePath(name));
        QVERIFY(inCwd.open(QIODevice::WriteOnly));
        inCwd.close();
        QCOMPARE(QSova::locateConfigFile(name), QFileInfo(inCwd).absoluteFilePath());

        // The application's directory comes before the current one.
        QFile inAppDir(QCoreApplication::applicationDirPath() + QLatin1Char('/') + name);
        QVERIFY(inAppDir.open(QIODevice::WriteOnly));
        inAppDir.close();
        QCOMPARE(QSova::locateConfigFile(name), QFileInfo(inAppDir).absoluteFilePath());
        inAppDir.remove();
        QDir::setCurrent(previous);

        // "/etc" comes before the application's directory.
        if (!QFile::exists(QStringLiteral("/etc/hostname")))
            QSKIP("no /etc/hostname on this machine");
        QFile shadow(QCoreApplication::applicationDirPath() + QStringLiteral("/hostname"));
        QVERIFY(shadow.open(QIODevice::WriteOnly));
        shadow.close();
        QCOMPARE(QSova::locateConfigFile(QStringLiteral("hostname")),
                 QStringLiteral("/etc/hostname"));
        shadow.remove();
    }
};

QTEST_GUILESS_MAIN(tst_QSovaUtils)
#include "tst_qsovautils.moc"
