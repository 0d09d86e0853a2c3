// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// How every stage tells how far it has come, and what a stop means.
//
// Progress. A stage that reports calls its `ProgressFn` (which may be empty) with one `Progress`:
// the fraction done, 0 to 1, and the name of the clip it is working on, empty when the caller
// handed it that one item itself (a decode, one clip's analysis) or has none at hand. The call
// may come from any thread the stage runs on; the stage's header says which.
//
// Cancellation. A stage is stopped through the `std::stop_token` it is given, polled where its
// header says. A stopped stage returns its input unchanged: what it had done is dropped, so a
// caller never installs half a result, and one that only stops to throw the result away need not
// ask. A stage over one item, which has no input to give back, returns nothing instead. Decoders
// are the exception, as they report every failure: a decode stopped half way raises
// `TrelvaneError` of kind `stopped`, and the stage that called it catches that and returns as any
// stopped stage does.

#include <functional>
#include <string>

namespace trelvane {

struct Progress {
    double fraction = 0;
    std::string current;
};

using ProgressFn = std::function<void(const Progress&)>;

} // namespace trelvane
