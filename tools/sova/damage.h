#pragma once

#include <QCommandLineOption>
#include <QString>

#include <sova/audio.h>

// Damaged inputs: read past with a warning, or refused under --strict.

// The --strict option of the commands that read audio.
QCommandLineOption strictOption();

// True when the report names any damage.
bool isDamaged(const AUDIO_DamageReport& report);

// "'PATH' is damaged: 2 stretches from 00:00:01.234, about 0.093 s of audio lost; cut off at the
// end" (no newline).
QString damageText(const QString& path, const AUDIO_DamageReport& report);

// For a damaged input: without strict prints "sova: COMMAND: warning: ..." and returns false;
// with strict prints "sova: COMMAND: ... (--strict)" and returns true: the caller then fails
// with ExitFailure. Clean input: false, nothing printed.
bool refuseDamage(
    const char* command, const QString& path, const AUDIO_DamageReport& report, bool strict);

// Reads PATH to the end to find its damage; false (the engine's reason recorded) when it cannot
// be read.
bool scanDamage(const QString& path, const QString& format, AUDIO_DamageReport* report);
