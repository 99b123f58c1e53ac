#ifndef QSOVAFILE_H
#define QSOVAFILE_H
#endif
