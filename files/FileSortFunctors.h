// The twelve orders of a file listing, as strict "a before b" predicates over
// two entries. In every order a folder comes before a file; between two
// folders or two files the key decides. Each call asks the file system afresh.
//
// CompareNames: texts compared character by character after classic-locale
// lowering; the first difference decides as a signed 8-bit difference, so
// bytes 128-255 come before every ASCII character. <0, 0 or >0.
#pragma once

#include "files/CFileTools.h"

int CompareNames(const char* a, const char* b);

#define KIV_SORT_FUNCTOR(Name, Expr)                          \
    struct Name {                                             \
        bool operator()(CFileTools* a, CFileTools* b) const { \
            bool fa = a->isFolder(), fb = b->isFolder();      \
            if (fa != fb) return fa;                          \
            return Expr;                                      \
        }                                                     \
    };

KIV_SORT_FUNCTOR(SortByTitleAsc, CompareNames(a->getDisplayName().c_str(), b->getDisplayName().c_str()) < 0)
KIV_SORT_FUNCTOR(SortByTitleDesc, CompareNames(a->getDisplayName().c_str(), b->getDisplayName().c_str()) > 0)
KIV_SORT_FUNCTOR(SortByExtensionAsc, CompareNames(a->getExtension().c_str(), b->getExtension().c_str()) < 0)
KIV_SORT_FUNCTOR(SortByExtensionDesc, CompareNames(a->getExtension().c_str(), b->getExtension().c_str()) > 0)
KIV_SORT_FUNCTOR(SortBySizeAsc, a->getFileSize() < b->getFileSize())
KIV_SORT_FUNCTOR(SortBySizeDesc, a->getFileSize() > b->getFileSize())
KIV_SORT_FUNCTOR(SortByCreationDateAsc, a->getDateCreated() < b->getDateCreated())
KIV_SORT_FUNCTOR(SortByCreationDateDesc, a->getDateCreated() > b->getDateCreated())
KIV_SORT_FUNCTOR(SortByLastModifiedAsc, a->getLastModified() < b->getLastModified())
KIV_SORT_FUNCTOR(SortByLastModifiedDesc, a->getLastModified() > b->getLastModified())
KIV_SORT_FUNCTOR(SortByLastAccessedTimeAsc, a->getLastAccessed() < b->getLastAccessed())
KIV_SORT_FUNCTOR(SortByLastAccessedTimeDesc, a->getLastAccessed() > b->getLastAccessed())

#undef KIV_SORT_FUNCTOR
