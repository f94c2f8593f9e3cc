#pragma once

#include "nqExport.h"

#include <locale>
#include <string>

namespace nq {

/// Texts for people. The locale lives in the platform library, the two templates in the scheduler
/// library, which exports them for `unsigned long` alone; with any other type they do not link.
///
/// Any thread may call; the locale is only read. Nothing blocks, and only allocation and stream
/// exceptions pass through.
class nqStringUtils {
public:
    /// The classic "C" locale: decimal point, no digit grouping, whatever the host's global locale.
    NQ_API static const std::locale msCplusLocale;

    /// `value` with about `nbSignificantDigits` digits in all, at most `maxNbDecimals` of them
    /// after the point, and a prefix letter for steps of 1024 (`base1024`) or 1000. The unit is the
    /// caller's to append. Exact halves round down, and a value that rounds up to the next step
    /// keeps its prefix ("1024k").
    template <typename T>
    NQ_API static std::string humanizeNumberGeneric(
        T value,
        int nbSignificantDigits,
        int maxNbDecimals,
        bool base1024,
        bool useMultiplePrefixes,
        bool useSubmultiplePrefixes);

    /// A duration in milliseconds as "1h 2m 3s 4ms". `detailLevel` 1 drops what is small beside the
    /// largest component, 2 drops everything below minutes, any other value shows all.
    /// `appendTotalMs` adds the total, " (3723004ms)", from one second on.
    template <typename T>
    NQ_API static std::string humanizeDuration(T durationMs, int detailLevel, bool appendTotalMs);
};

} // namespace nq
