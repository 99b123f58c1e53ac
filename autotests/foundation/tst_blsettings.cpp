// The settings store: requests, layers, typed reads, files, secrets, crash safety, threads.
#include <sova/blerror.h>
#include <sova/bllist.h>
#include <sova/blsettings.h>

#include <QtTest>

#include <atomic>
#include <memory>
#include <random>
#include <thread>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using B = QByteArray;
using Store = std::unique_ptr<_BLSETTINGS, void (*)(_BLSETTINGS*)>;

static Store open(const QString& user = {}, const QString& system = {})
{
    const B u = QFile::encodeName(user), s = QFile::encodeName(system);
    return Store(BLSETTINGS_Create(user.isEmpty() ? nullptr : u.constData(),
                                   system.isEmpty() ? nullptr : s.constData()),
                 BLSETTINGS_Destroy);
}

static QStringList listed(_BLSETTINGS* store, const char* prefix)
{
    BLLIST* list = BLSETTINGS_ListSettingsEx(store, prefix);
    QStringList result;
    for (int i = 0; i < BLLIST_NumElements(list); ++i)
        result << QString::fromUtf8(static_cast<const char*>(BLLIST_GetData(list, i)));
    BLLIST_DestroyEx(list, 0);
    return result;
}

// Reads the file, or replaces its content when one is given.
static B file(const QString& path, const B& content = {})
{
    QFile f(path);
    if (content.isNull())
        return f.open(QIODevice::ReadOnly) ? f.readAll() : B();
    f.open(QIODevice::WriteOnly | QIODevice::Truncate);
    f.write(content);
    return content;
}

class TestBlSettings : public QObject
{
    Q_OBJECT

private slots:
    void requests_data()
    {
        QTest::addColumn<B>("request");
        QTest::addColumn<B>("key");      // empty: malformed for reads and writes
        QTest::addColumn<B>("written");  // what a write stores; null: the write is rejected
        QTest::addColumn<B>("fallback"); // a read's default on an empty store; null: none
        QTest::newRow("plain") << B("a.b=1") << B("a.b") << B("1") << B("1");
        QTest::newRow("blanks around key and brackets")
            << B(" \tx_y-z  = [v] ") << B("x_y-z") << B(" [v] ") << B("v");
        QTest::newRow("] inside the brackets") << B("k=[a]b]") << B("k") << B("[a]b]") << B("a]b");
        QTest::newRow("= and , inside the brackets")
            << B("k=[x=1,y=[2]], z") << B("k") << B("[x=1,y=[2]], z") << B("x=1,y=[2]");
        QTest::newRow("empty brackets") << B("k=[]") << B("k") << B("[]") << B("");
        QTest::newRow("no brackets") << B("k=a, b=c") << B("k") << B("a, b=c") << B("a, b=c");
        QTest::newRow("unclosed bracket") << B("k=[abc") << B("k") << B("[abc") << B("[abc");
        QTest::newRow("empty value") << B("k=") << B("k") << B("") << B("");
        QTest::newRow("bare key") << B("k") << B("k") << B() << B();
        QTest::newRow("empty key") << B(" =v") << B() << B() << B();
        QTest::newRow("bad character") << B("a/b=1") << B() << B() << B();
    }
    // Writes keep the text after '=' as it stands, reads take the bracketed default. Malformed
    // requests fail with a message naming them and leave the store as it was.
    void requests()
    {
        QFETCH(B, request);
        QFETCH(B, key);
        QFETCH(B, written);
        QFETCH(B, fallback);
        Store store = open();
        BLERROR_Clear();
        QCOMPARE(B(BLSETTINGS_GetStringEx(store.get(), request)), fallback);
        QCOMPARE(B(BLSETTINGS_GetSecretStringEx(store.get(), request)), fallback);
        QCOMPARE(BLERROR_LastCode(), int(key.isEmpty()        ? BLERR_PARSE
                                         : fallback.isNull() ? BLERR_KEY_NOT_FOUND
                                                             : BLERR_NONE));
        for (auto set : {BLSETTINGS_ChangeEx, BLSETTINGS_SetDefaultEx, BLSETTINGS_ChangeSecretEx}) {
            QCOMPARE(set(store.get(), request), written.isNull() ? 0 : 1);
            if (written.isNull()) {
                QCOMPARE(BLERROR_LastCode(), int(BLERR_PARSE));
                QVERIFY(B(BLERROR_LastMessage()).contains(request.left(request.indexOf('='))));
                QVERIFY(listed(store.get(), nullptr).isEmpty());
            }
        }
        if (!written.isNull()) {
            QCOMPARE(B(BLSETTINGS_GetStringEx(store.get(), key + "=[other]")), written);
            QCOMPARE(B(BLSETTINGS_GetSecretStringEx(store.get(), key)), written);
        }
    }

    // Value over default over the request's default; reset and delete drop one layer or both.
    // Run on a store of its own and on the process-wide one.
    void layers()
    {
        Store own = open();
        for (_BLSETTINGS* store : {own.get(), static_cast<_BLSETTINGS*>(nullptr)}) {
            auto get = [store] { return B(BLSETTINGS_GetStringEx(store, "tst.k=[req]")); };
            QVERIFY(get() == "req" && !BLSETTINGS_ExistsEx(store, "tst.k"));
            QVERIFY(BLSETTINGS_SetDefaultEx(store, "tst.k=def") == 1 && get() == "def");
            QVERIFY(BLSETTINGS_ExistsEx(store, "tst.k") && BLSETTINGS_IsDefault(store, "tst.k"));
            QVERIFY(BLSETTINGS_ChangeEx(store, "tst.k=val") == 1 && get() == "val");
            QVERIFY(!BLSETTINGS_IsDefault(store, "tst.k"));
            QVERIFY(BLSETTINGS_ResetValueEx(store, "tst.k") == 1 && get() == "def");
            QCOMPARE(BLSETTINGS_ResetValueEx(store, "tst.k"), 0); // nothing left to drop
            BLSETTINGS_ChangeEx(store, "tst.k=val");
            QVERIFY(BLSETTINGS_DeleteEx(store, "tst.k") == 1 && get() == "req");
            QVERIFY(!BLSETTINGS_ExistsEx(store, "tst.k") && !BLSETTINGS_DeleteEx(store, "tst.k"));
            BLSETTINGS_ChangeEx(store, "tst.only=1"); // no default: reset makes it vanish
            QVERIFY(BLSETTINGS_ResetValueEx(store, "tst.only") && !BLSETTINGS_ExistsEx(store, "tst.only"));
        }
        BLSETTINGS_ChangeEx(nullptr, "tst.kept=1");
        BLSETTINGS_Destroy(nullptr); // the process-wide store stays
        QVERIFY(BLSETTINGS_ExistsEx(nullptr, "tst.kept"));
    }

    void typed_data()
    {
        QTest::addColumn<B>("type");
        QTest::addColumn<B>("stored"); // null: the key has no text
        QTest::addColumn<B>("fallback"); // the request's default; null: bare key
        QTest::addColumn<double>("expected");
        QTest::newRow("int decimal") << B("int") << B(" 42 ") << B() << 42.0;
        QTest::newRow("int hex") << B("int") << B("0x1F") << B() << 31.0;
        QTest::newRow("int negative hex") << B("int") << B("-0x10") << B() << -16.0;
        QTest::newRow("int 2^32-1 is -1") << B("int") << B("4294967295") << B() << -1.0;
        QTest::newRow("int too big") << B("int") << B("4294967296") << B("5") << 5.0;
        QTest::newRow("int too small") << B("int") << B("-2147483649") << B() << 0.0;
        QTest::newRow("int bad text") << B("int") << B("12abc") << B("0x7") << 7.0;
        QTest::newRow("int bad text and default") << B("int") << B("x") << B("y") << 0.0;
        QTest::newRow("int absent") << B("int") << B() << B("-3") << -3.0;
        QTest::newRow("bool TRUE") << B("bool") << B("TRUE") << B("0") << 1.0;
        QTest::newRow("bool Off") << B("bool") << B("Off") << B("1") << 0.0;
        QTest::newRow("bool bad text") << B("bool") << B("maybe") << B("yes") << 1.0;
        QTest::newRow("float exponent") << B("float") << B("-2.5e3") << B() << -2500.0;
        QTest::newRow("float comma") << B("float") << B("1,5") << B("0.25") << 0.25;
        QTest::newRow("float absent") << B("float") << B() << B("+3.75") << 3.75;
    }
    void typed()
    {
        QFETCH(B, type);
        QFETCH(B, stored);
        QFETCH(B, fallback);
        QFETCH(double, expected);
        Store s = open();
        if (!stored.isNull())
            QVERIFY(BLSETTINGS_ChangeEx(s.get(), "n=" + stored));
        const B request = fallback.isNull() ? B("n") : "n=[" + fallback + "]";
        const double got = type == "int"    ? BLSETTINGS_GetIntEx(s.get(), request)
                           : type == "bool" ? BLSETTINGS_GetBoolEx(s.get(), request)
                                            : BLSETTINGS_GetFloatEx(s.get(), request);
        QCOMPARE(got, expected);
    }

    // Effective texts of values and defaults, sorted, by plain string prefix; secrets never.
    void list()
    {
        Store store = open();
        for (const char* request : {"b=4", "a.y=2", "a.x=0"})
            BLSETTINGS_SetDefaultEx(store.get(), request);
        for (const char* request : {"a.x=1", "ab=3"})
            BLSETTINGS_ChangeEx(store.get(), request);
        BLSETTINGS_ChangeSecretEx(store.get(), "a.secret=x");
        QCOMPARE(listed(store.get(), nullptr), QStringList({"a.x=1", "a.y=2", "ab=3", "b=4"}));
        QCOMPARE(listed(store.get(), "a."), QStringList({"a.x=1", "a.y=2"}));
        QCOMPARE(listed(store.get(), "a"), QStringList({"a.x=1", "a.y=2", "ab=3"}));
        QVERIFY(listed(store.get(), "c").isEmpty());
    }

    // What FlushEx writes, a new store reads back unchanged; defaults stay out of the file.
    // FlushEx(0) leaves the file alone until a value changed; force writes anyway.
    void flush()
    {
        const QStringList values = {"one\ntwo\r\nthree", "C:\\dir\\n\\\\ \\s", "  padded\t ",
                                    "# x = y ; z", " ", "", "gr\u00fc\u00df"};
        QTemporaryDir dir;
        const QString user = dir.filePath("user.conf");
        auto inode = [&] { struct stat st{}; return ::stat(QFile::encodeName(user), &st) ? 0 : st.st_ino; };
        Store store = open(user);
        QVERIFY(BLSETTINGS_FlushEx(store.get(), 0) == 1 && inode() == 0); // nothing to write yet
        QStringList expected;
        for (int i = 0; i < values.size(); ++i) {
            expected << QString("k%1=%2").arg(i).arg(values[i]);
            QVERIFY(BLSETTINGS_ChangeEx(store.get(), expected.last().toUtf8()));
        }
        BLSETTINGS_SetDefaultEx(store.get(), "d=not written");
        QCOMPARE(BLSETTINGS_FlushEx(store.get(), 0), 1);
        QVERIFY(!file(user).contains("not written"));
        QCOMPARE(listed(open(user).get(), nullptr), expected);
        const ino_t first = inode();
        BLSETTINGS_ChangeEx(store.get(), "k0=one\ntwo\r\nthree"); // the same value is no change
        BLSETTINGS_SetDefaultEx(store.get(), "d=1");               // defaults are not written
        QVERIFY(BLSETTINGS_FlushEx(store.get(), 0) == 1 && inode() == first);
        QCOMPARE(BLSETTINGS_FlushEx(store.get(), 1), 1);
        const ino_t forced = inode();
        QCOMPARE(BLSETTINGS_FlushEx(open(user).get(), 0), 1); // just read: nothing changed
        QVERIFY(forced != first && inode() == forced);
        QCOMPARE(BLSETTINGS_FlushEx(open().get(), 1), 0); // no file to write

        // A user file that cannot be read is not taken on, so a flush cannot replace it.
        const B folder = QFile::encodeName(dir.filePath("folder"));
        QVERIFY(QDir().mkdir(QString::fromUtf8(folder)));
        QCOMPARE(BLSETTINGS_SetConfigFileEx(store.get(), folder, nullptr), 0);
        QVERIFY(BLSETTINGS_ChangeEx(store.get(), "after=1"));
        QCOMPARE(BLSETTINGS_FlushEx(store.get(), 1), 0);
        QVERIFY(QFileInfo(QString::fromUtf8(folder)).isDir());
    }

    // Hand-written files: comments, malformed lines, escapes, CRLF; the system file gives
    // defaults beneath the user's values, LoadDefaults prefixes them into the process store.
    void fileFormat()
    {
        QTemporaryDir dir;
        const QString user = dir.filePath("user.conf"), system = dir.filePath("system.conf");
        file(system, "# system\nshared = from system\nsys.only=\\stwo\\tparts\\s\n");
        file(user, "; comment\r\n  shared =  mine \r\n\nno equals sign\nbad key = 1\n"
                   "= empty key\nesc = a\\nb\\\\c\\qd\nlast=unterminated");
        Store store = open(user, system);
        QCOMPARE(listed(store.get(), nullptr),
                 QStringList({"esc=a\nb\\c\\qd", "last=unterminated", "shared=mine",
                              "sys.only= two\tparts "}));
        QVERIFY(BLSETTINGS_IsDefault(store.get(), "sys.only"));
        QCOMPARE(BLSETTINGS_ResetValueEx(store.get(), "shared"), 1);
        QCOMPARE(B(BLSETTINGS_GetStringEx(store.get(), "shared")), B("from system"));
        QCOMPARE(BLSETTINGS_LoadDefaults(QFile::encodeName(system), "tst.sys."), 1);
        QCOMPARE(B(BLSETTINGS_GetStringEx(nullptr, "tst.sys.shared")), B("from system"));
        QVERIFY(!BLSETTINGS_ExistsEx(nullptr, "shared"));
        const B missing = QFile::encodeName(dir.filePath("missing")); // a store reads it as empty
        QCOMPARE(BLSETTINGS_SetConfigFileEx(store.get(), missing, missing), 1);
        QCOMPARE(BLSETTINGS_LoadDefaults(missing, nullptr), 0);
    }

    void secrets_data()
    {
        QTest::addColumn<B>("tamper"); // what is done to the files before rereading
        QTest::newRow("untouched") << B();
        QTest::newRow("entry changed") << B("flip");
        QTest::newRow("entries swapped") << B("swap");
        QTest::newRow("other key") << B("key");
    }
    // Secrets reach neither the user's file nor the secrets file in clear text; both secret
    // files are private; a second store opens them, and altered files lose entries harmlessly.
    void secrets()
    {
        QFETCH(B, tamper);
        QTemporaryDir dir;
        const QString user = dir.filePath("user.conf");
        const B pw("Very-Secret-1"), token("Hush-Hush-2");
        {
            Store store = open(user);
            QCOMPARE(BLSETTINGS_ChangeSecretEx(store.get(), "pw=" + pw), 1);
            QCOMPARE(BLSETTINGS_ChangeSecretEx(store.get(), "token=" + token), 1);
            BLSETTINGS_ChangeEx(store.get(), "plain=1");
            QCOMPARE(BLSETTINGS_FlushEx(store.get(), 1), 1);
            QCOMPARE(B(BLSETTINGS_GetStringEx(store.get(), "pw")), B());
        }
        for (const QString& path : {user, user + ".secrets", user + ".key"})
            QVERIFY(!file(path).isEmpty() && !file(path).contains(pw) && !file(path).contains(token));
        QVERIFY(!file(user).contains("pw"));
        struct stat st{};
        for (const char* suffix : {".secrets", ".key"})
            QVERIFY(!::stat(QFile::encodeName(user + suffix), &st) && (st.st_mode & 0777) == 0600);
        B sealed = file(user + ".secrets");
        const int at = sealed.indexOf("pw = ") + 20; // inside the nonce
        if (tamper == "flip")
            sealed[at] = sealed[at] == 'A' ? 'B' : 'A';
        if (tamper == "swap")
            sealed.replace("pw = ", "x = ").replace("token = ", "pw = ").replace("x = ", "token = ");
        file(user + ".secrets", sealed);
        if (tamper == "key")
            file(user + ".key", B(32, 'k'));
        BLERROR_Clear();
        Store again = open(user);
        QVERIFY(again && (BLERROR_LastCode() != BLERR_NONE) == !tamper.isEmpty());
        QCOMPARE(B(BLSETTINGS_GetSecretStringEx(again.get(), "pw=[none]")),
                 tamper.isEmpty() ? pw : B("none"));
        QCOMPARE(B(BLSETTINGS_GetSecretStringEx(again.get(), "token")),
                 tamper.isEmpty() || tamper == "flip" ? token : B());
        // Deleting drops the secret from the file too, and only that one.
        BLSETTINGS_DeleteEx(again.get(), "token");
        Store third = open(user);
        QCOMPARE(B(BLSETTINGS_GetSecretStringEx(third.get(), "token")), B());
        QCOMPARE(B(BLSETTINGS_GetSecretStringEx(third.get(), "pw")), tamper.isEmpty() ? pw : B());
    }

    // A writer killed at random moments leaves the old file or the new one: it always parses
    // and holds one consistent save (payload matching the counter's parity), never a mix, and
    // no temporary file beside it (only the writers' lock file).
    void crashSafety()
    {
        QTemporaryDir dir;
        const QString user = dir.filePath("user.conf");
        const B a(20000, 'a'), b(20000, 'b');
        file(user, "payload = " + a + "\ncounter = 0\n");
        std::mt19937 random(4711);
        for (int round = 0; round < 50; ++round) {
            const pid_t child = ::fork();
            QVERIFY(child >= 0);
            if (child == 0) {
                _BLSETTINGS* store = BLSETTINGS_Create(QFile::encodeName(user), nullptr);
                for (int i = 1;; ++i) {
                    BLSETTINGS_ChangeEx(store, "payload=" + (i % 2 ? b : a));
                    BLSETTINGS_ChangeEx(store, "counter=" + B::number(i));
                    BLSETTINGS_FlushEx(store, 1);
                }
            }
            ::usleep(std::uniform_int_distribution<useconds_t>(0, 20000)(random));
            ::kill(child, SIGKILL);
            QCOMPARE(::waitpid(child, nullptr, 0), child);
            Store reread = open(user);
            const int counter = BLSETTINGS_GetIntEx(reread.get(), "counter=[-1]");
            QVERIFY(counter >= 0);
            QCOMPARE(B(BLSETTINGS_GetStringEx(reread.get(), "payload")), counter % 2 ? b : a);
            // A kill between naming the new file and renaming it over the old one leaves that
            // name (a whole copy) until the next writer; nothing else may be left.
            QStringList left
                = QDir(dir.path()).entryList(QDir::Files | QDir::Hidden | QDir::System);
            left.removeOne(".user.conf.lock");
            left.removeOne("user.conf");
            for (const QString& name : left)
                QVERIFY2(name.startsWith(".user.conf.sova-"), qPrintable(name));
        }
        // The next writer removes what dead ones left, and never a live writer's file.
        const pid_t dead = ::fork();
        if (dead == 0)
            ::_exit(0);
        QCOMPARE(::waitpid(dead, nullptr, 0), dead);
        const QString deadCopy = QStringLiteral(".user.conf.sova-%1-abcdef").arg(dead);
        const QString liveCopy = QStringLiteral(".user.conf.sova-%1-abcdef").arg(::getpid());
        file(dir.filePath(deadCopy), "payload = x\n");
        file(dir.filePath(liveCopy), "payload = x\n");
        Store last = open(user);
        BLSETTINGS_ChangeEx(last.get(), "counter=100");
        QVERIFY(BLSETTINGS_FlushEx(last.get(), 1));
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden | QDir::System),
                 QStringList({".user.conf.lock", liveCopy, "user.conf"}));
    }

    // Four threads write their own keys and one shared key while reading, listing and
    // flushing; afterwards every key holds its writer's last value, in memory and on disk.
    void concurrency()
    {
        QTemporaryDir dir;
        Store store = open(dir.filePath("user.conf"));
        constexpr int threads = 4, rounds = 3000;
        std::atomic<int> mismatches{0};
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                const B own = "t" + B::number(t);
                for (int i = 0; i < rounds; ++i) {
                    BLSETTINGS_ChangeEx(store.get(), own + "=" + B::number(i));
                    BLSETTINGS_ChangeEx(store.get(), "shared=" + B::number(t * rounds + i));
                    mismatches += BLSETTINGS_GetIntEx(store.get(), own + "=[-1]") != i;
                    mismatches += BLSETTINGS_GetIntEx(store.get(), "shared=[-1]") < 0;
                    if (i % 250 == 0)
                        mismatches += listed(store.get(), "t").size() > threads
                                      || !BLSETTINGS_FlushEx(store.get(), 0);
                }
            });
        }
        for (std::thread& worker : workers)
            worker.join();
        QCOMPARE(mismatches.load(), 0);
        QCOMPARE(BLSETTINGS_FlushEx(store.get(), 0), 1);
        Store reread = open(dir.filePath("user.conf"));
        for (_BLSETTINGS* s : {store.get(), reread.get()}) {
            for (int t = 0; t < threads; ++t)
                QCOMPARE(BLSETTINGS_GetIntEx(s, "t" + B::number(t)), rounds - 1);
            QCOMPARE(BLSETTINGS_GetIntEx(s, "shared") % rounds, rounds - 1);
        }
    }
};

QTEST_GUILESS_MAIN(TestBlSettings)
#include "tst_blsettings.moc"
