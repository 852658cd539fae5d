// The processor's time over an interval of the caller's choice.

#ifndef OVARD_STATUS_CPU_USAGE_H
#define OVARD_STATUS_CPU_USAGE_H

/// Percent of an interval spent in each state.
struct cpuload_struct {
    float user;
    float sys;
    float nice;
    float idle;
    float iowait;
    float irq;
    float softirq;
};

/// Measures the shares since its previous call (since boot at the first one) into `load`. Has
/// samples of its own, apart from those of what is published; one thread at a time. `load` stays as
/// it was unless all ten figures of the "cpu" line were found. Returns 0 when at least the first
/// seven were, -1 when /proc/stat cannot be opened, else a negative mask in which bit k is clear
/// for figure k found. For callers of their own; the monitor does not use it.
int get_CPU_Usage(cpuload_struct* load);

#endif // OVARD_STATUS_CPU_USAGE_H
