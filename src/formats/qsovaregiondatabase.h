#ifndef QSOVAREGIONDATABASE_H
#define QSOVAREGIONDATABASE_H

#include "qtsovacore_export.h"

#include <QString>
#include <QStringList>

// The region (marker) file formats the audio engine imports and exports, as the file-dialog
// filters to offer and the engine tag behind each of them.
class QTSOVACORE_EXPORT QSovaRegionDatabase
{
public:
    // The file-dialog filter texts of the formats meant for file dialogs, in the engine's
    // order; empty when the engine lists none.
    static QStringList formatFilters();
    // The engine tag name ("labels", "cue") of the format whose filter text is exactly filter
    // (case-sensitive); a null string when none has it. Formats kept out of formatFilters()
    // are found too.
    static QString tagForFilter(const QString& filter);
};

#endif
