// The out-of-memory score of a process directory.

#ifndef OVARD_PLATFORM_LINUX_OOM_SCORE_H
#define OVARD_PLATFORM_LINUX_OOM_SCORE_H

namespace platform {

/// Converts the scale -17 to 15 to that of oom_score_adj, -1000 to 1000, as the kernel does.
int oomScoreFromAdjustment(int adjustment);

/// OOM_Killer_set_oom_adj on the files of `directory`, which ends in a slash: oom_score_adj, or
/// oom_adj where the former cannot be written.
int writeOomAdjustment(const char* directory, int adjustment);

} // namespace platform

#endif // OVARD_PLATFORM_LINUX_OOM_SCORE_H
