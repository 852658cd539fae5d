#include "platform/linux/OomScore.h"

#include <fcntl.h>

#include <cerrno>
#include <climits>

#include "platform/Process.h"
#include "platform/UniqueFd.h"
#include "platform/linux/FixedText.h"

namespace platform {
namespace {

constexpr int kLowestAdjustment = -17;
constexpr int kHighestAdjustment = 15;
constexpr int kHighestScore = 1000;

int writeFigure(const char* directory, const char* file, int figure) {
    FixedText<PATH_MAX> path;
    path.add(directory).add(file);
    FixedText<16> text;
    text.addNumber(figure);
    const UniqueFd target(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
    if (!target.valid()) {
        return -1;
    }
    const auto size = static_cast<ssize_t>(text.view().size());
    return writeFully(target.get(), text.c_str(), text.view().size()) == size ? 0 : -1;
}

} // namespace

int oomScoreFromAdjustment(int adjustment) {
    return adjustment == kHighestAdjustment ? kHighestScore
                                            : adjustment * kHighestScore / -kLowestAdjustment;
}

int writeOomAdjustment(const char* directory, int adjustment) {
    if (adjustment < kLowestAdjustment || adjustment > kHighestAdjustment) {
        errno = EINVAL;
        return -1;
    }
    if (writeFigure(directory, "oom_score_adj", oomScoreFromAdjustment(adjustment)) == 0) {
        return 0;
    }
    return writeFigure(directory, "oom_adj", adjustment); // kernels before 2.6.36
}

} // namespace platform

int OOM_Killer_set_oom_adj(int adjustment) {
    return platform::writeOomAdjustment("/proc/self/", adjustment);
}
