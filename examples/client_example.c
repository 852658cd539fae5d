// A program that talks to the application monitor: it shows what the monitor publishes, and starts
// or stops an application. For C and C++.
//
//     cc client_example.c $(pkg-config --cflags --libs --static ovard_client)

#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include <ovard_client.h>

enum { EXIT_OK = 0, EXIT_FAILED = 1, EXIT_USAGE = 2 };

static const char* const USAGE = "Usage: client_example [start NAME COMMAND PIDFILE | stop NAME]\n"
                                 "Without arguments it shows what is published.\n";

static int fail(const char* what, ovard_result result) {
    fprintf(stderr, "%s: %s", what, ovard_result_text(result));
    if (result == OVARD_SYSTEM_ERROR) {
        perror(" ");
    } else {
        fputs("\n", stderr);
    }
    return EXIT_FAILED;
}

/// Sends a request and prints the reply.
static int ask(const ovard_request* request) {
    ovard_reply reply;
    const ovard_result result = ovard_send(NULL, OVARD_DEFAULT_TIMEOUT_MS, request, &reply);
    if (result != OVARD_OK) {
        if (reply.request_sent) {
            fputs("the request is out; its outcome is not known\n", stderr);
        }
        return fail("request", result);
    }
    printf("%s", reply.message);
    return reply.code == 0 ? EXIT_OK : EXIT_FAILED;
}

static int start(const char* name, const char* command, const char* pidfile) {
    ovard_request request;
    ovard_request_init(&request, OVARD_START);
    ovard_result result = ovard_request_set_name(&request, name);
    if (result == OVARD_OK) {
        result = ovard_request_set_command(&request, command);
    }
    if (result == OVARD_OK) {
        result = ovard_request_set_pidfile(&request, pidfile);
    }
    return result == OVARD_OK ? ask(&request) : fail("start", result);
}

static int stop(const char* name) {
    ovard_request request;
    ovard_request_init(&request, OVARD_STOP);
    const ovard_result result = ovard_request_set_name(&request, name);
    return result == OVARD_OK ? ask(&request) : fail("stop", result);
}

static void showMonitor(void) {
    static const char* const WORDS[] = {"not running", "running", "unknown"};
    printf("monitor: %s\n", WORDS[ovard_find_monitor(NULL)]);
}

static int showApplications(void) {
    ovard_application applications[OVARD_MOST_APPLICATIONS];
    ovard_overview overview;
    const ovard_result result =
        ovard_read_applications(applications, OVARD_MOST_APPLICATIONS, &overview);
    if (result != OVARD_OK) {
        return fail("applications", result);
    }
    printf("applications: %" PRId32 "\n", overview.published);
    for (int32_t index = 0; index < overview.published; ++index) {
        const ovard_application* const one = &applications[index];
        printf("  %s pid=%" PRId32 " status=%s uptime=%" PRIu32 "s\n", one->name, one->pid,
               one->status, one->uptime_sec);
    }
    return EXIT_OK;
}

static int showMachine(void) {
    ovard_machine machine;
    const ovard_result result = ovard_read_machine(&machine);
    if (result != OVARD_OK) {
        return fail("machine", result);
    }
    printf("machine: kernel %s, load %.2f, memory %" PRId32 " kB, %" PRId32 " kB free, eth0 %s\n",
           machine.kernel_release, (double)machine.load_1min, machine.memory_total_kb,
           machine.memory_free_kb, machine.eth0.ipv4);
    return EXIT_OK;
}

static int show(void) {
    showMonitor();
    const int applications = showApplications();
    const int machine = showMachine();
    return applications == EXIT_OK ? machine : applications;
}

int main(int argc, char** argv) {
    if (argc == 1) {
        return show();
    }
    if (argc == 5 && strcmp(argv[1], "start") == 0) {
        return start(argv[2], argv[3], argv[4]);
    }
    if (argc == 3 && strcmp(argv[1], "stop") == 0) {
        return stop(argv[2]);
    }
    fputs(USAGE, stderr);
    return EXIT_USAGE;
}
