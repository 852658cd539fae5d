// Both segments after the first publishing cycle of the machine in PublishedImagesTest.cpp. See
// GoldenImage.h.

#ifndef OVARD_TESTS_RECORDS_GOLDEN_PUBLISHED_IMAGES_H
#define OVARD_TESTS_RECORDS_GOLDEN_PUBLISHED_IMAGES_H

namespace golden {

inline constexpr const char* kSystemSegment = R"image(
       0 text     32  "2.6.32.8"                  # kernel release
      32 text     32  "#7 Tue Nov 14 2023"        # kernel version
      64 text     32  "192.0.2.1"                 # IPv4 address of eth0
      96 text     32  ""                          # of eth1: none
     128 text     64  "2001:db8::1"               # IPv6 address of eth0
     192 text     64  "fe80::2:1"                 # of eth1

     256 bytes    16  00*16                       # reserved
     272 number    4  40 20 00 00                 # uptime: 2.5 hours
     276 number    4  42 48 00 00                 # idle time: 50 percent
     280 bytes     8  00 00 01 8B CF 4C D1 80     # boot time: 1699990000000, on every machine so
     288 number    8  00 00 00 09 87 65 43 21     # context switches: 40926266145
     296 number    8  00 00 00 01 23 45 67 89     # interrupts: 4886718345
     304 number    4  3E 80 00 00                 # load average of 1 minute: 0.25
     308 number    4  3F 00 00 00                 # of 5 minutes: 0.5
     312 number    4  3F 40 00 00                 # of 15 minutes: 0.75
     316 bytes     4  00*4                        # reserved
     320 number    4  41 20 00 00                 # processor time, user: 10 percent
     324 number    4  41 A0 00 00                 # system: 20 percent
     328 number    4  40 A0 00 00                 # nice: 5 percent
     332 number    4  42 20 00 00                 # idle: 40 percent
     336 number    4  40 40 00 00                 # I/O wait: 3 percent
     340 number    4  40 00 00 00                 # interrupts: 2 percent
     344 number    4  40 80 00 00                 # soft interrupts: 4 percent
     348 bytes     4  00*4                        # reserved
     352 number    4  00 03 1A 2B                 # memory, total: 203307 kB
     356 number    4  00 02 59 4D                 # used: 153933 kB, total less free
     360 number    4  00 00 C0 DE                 # free: 49374 kB
     364 number    4  00 00 12 34                 # buffers: 4660 kB
     368 number    4  00 00 56 78                 # cached: 22136 kB
     372 number    4  00 00 9A BC                 # active: 39612 kB
     376 number    4  00 00 DE F0                 # inactive: 57072 kB
     380 number    4  00 00 01 02                 # shared: 258 kB

     384 number    8  00 00 00 01 40 00 00 00     # eth0, received bytes: 5368709120
     392 number    8  00 00 00 01 00 00 00 0F     # packets: 4294967311
     400 number    4  00 01 00 03                 # errors: 65539
     404 number    4  00 01 00 04                 # dropped: 65540
     408 number    4  00 01 00 06                 # frame errors: 65542
     412 number    4  00 01 00 05                 # FIFO errors: 65541
     416 bytes     4  00*4                        # reserved
     420 number    4  49 80 00 00                 # data rate: 1048576 kB/s, all bytes in 5 seconds
     424 number    8  00 00 00 00 00 00 28 00     # sent bytes: 10240
     432 number    8  00 00 00 00 00 00 03 E8     # packets: 1000
     440 number    4  00 01 00 0B                 # errors: 65547
     444 number    4  00 01 00 0C                 # dropped: 65548
     448 bytes     4  00*4                        # reserved
     452 number    4  00 01 00 0D                 # FIFO errors: 65549
     456 number    4  00 01 00 0E                 # collisions: 65550
     460 number    4  40 00 00 00                 # data rate: 2 kB/s

     464 number    8  00 00 00 00 00 00 14 00     # eth1, received bytes: 5120
     472 number    8  00 00 00 00 00 00 00 11     # packets: 17
     480 number    4  00 02 00 03                 # errors: 131075
     484 number    4  00 02 00 04                 # dropped: 131076
     488 number    4  00 02 00 06                 # frame errors: 131078
     492 number    4  00 02 00 05                 # FIFO errors: 131077
     496 bytes     4  00*4                        # reserved
     500 number    4  3F 80 00 00                 # data rate: 1 kB/s
     504 number    8  00 00 00 00 00 00 0A 00     # sent bytes: 2560
     512 number    8  00 00 00 00 00 00 00 12     # packets: 18
     520 number    4  00 02 00 0B                 # errors: 131083
     524 number    4  00 02 00 0C                 # dropped: 131084
     528 bytes     4  00*4                        # reserved
     532 number    4  00 02 00 0D                 # FIFO errors: 131085
     536 number    4  00 02 00 0E                 # collisions: 131086
     540 number    4  3F 00 00 00                 # data rate: 0.5 kB/s

     544 bytes   960  00*960                      # reserved

    1504 text     36  "4 2023/11/16 16:11:12"     # IPv4 lease of eth0, when it expires
    1540 text     20  "86400"                     # lease time
    1560 text     20  "192.168.1.4"               # server
    1580 text     20  "192.168.1.77"              # client
    1600 text     20  "255.255.255.0"             # subnet mask
    1620 text     20  "192.168.1.1"               # router
    1640 text     20  "192.168.1.2,192.168"       # DNS servers, cut at 19 characters
    1660 text     20  "192.168.1.6"               # SMTP server
    1680 text     20  "192.168.1.5"               # SNTP server
    1700 text    196  ""                          # of eth1: a file without a lease
    1896 text     36  "Disabled"                  # IPv6 lease of eth0: no file
    1932 text     20  ""                          # renewal
    1952 text     68  ""                          # client
    2020 text     36  "7500"                      # of eth1, greatest life time
    2056 text     20  "3600"                      # renewal
    2076 text     68  "2001:db8:0:1::77"          # client

    2144 bytes  1952  00*1952                     # reserved
)image";

inline constexpr const char* kApplicationSegment = R"image(
       0 number    4  00 00 00 03                 # count
       4 number    4  00 00 00 7F                 # maximum: 127
       8 text     32  "0005.0001.231114.221320"   # file version
      40 text     32  "Nov 14 2023 22:13:20 (Release)"  # file date
      72 bytes    40  00*40                       # reserved
     112 number    4  00 01 10 00                 # health of IEC 61850, as before the first cycle
     116 number    2  40 00                       # health of the system, as before the first cycle
     118 bytes    10  00*10                       # reserved

     128 text     32  "data_server"               # name
     160 text     32  "2.5"                       # version
     192 bytes     8  00 00 01 8B CF D6 25 C0     # start: 1699999000000, on every machine so
     200 number    4  00 00 04 D2                 # process id: 1234
     204 text     16  "started"                   # status
     220 number    4  FF FF FF F9                 # priority: -7
     224 number    4  00 00 00 01                 # restart policy: all
     228 number    4  00 01 51 80                 # life limit: 86400
     232 text     16  "Eth"                       # port type
     248 number    4  00 00 01 F6                 # port: 502
     252 number    4  00 00 03 E8                 # uptime: 1000

     256 text     32  "modbus_gateway_of_the_second_se"  # name, cut at 31 characters
     288 text     32  "1.0.4"                     # version
     320 bytes     8  00 00 00 00 00 00 03 E8     # start: 1000
     328 number    4  00 01 11 70                 # process id: 70000
     332 text     16  "starting"                  # status
     348 number    4  00 00 00 13                 # priority: 19
     352 number    4  00 00 00 00                 # restart policy: self
     356 number    4  00 00 00 00                 # life limit
     360 text     16  "COM"                       # port type
     376 number    4  00 00 00 03                 # port: 3
     380 number    4  00 03 0D 40                 # uptime: 200000

     384 text     32  "event_log"                 # name
     416 text     32  ""                          # version
     448 bytes     8  FF FF FF FF FF FF EC 78     # start: -5000
     456 number    4  00 00 00 00                 # process id
     460 text     16  ""                          # status: dead, which is not published
     476 number    4  00 00 00 00                 # priority
     480 number    4  00 00 00 02                 # restart policy: 2
     484 number    4  FF FF FF FF                 # life limit: -1
     488 text     16  "None"                      # port type: 7, which there is not
     504 number    4  FF FF FF FD                 # port: -3
     508 number    4  00 00 00 00                 # uptime

     512 bytes 15872  00*15872                    # no more applications
)image";

} // namespace golden

#endif // OVARD_TESTS_RECORDS_GOLDEN_PUBLISHED_IMAGES_H
