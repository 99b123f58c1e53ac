#ifndef QSOVAVAD_H
#define QSOVAVAD_H
#endif
