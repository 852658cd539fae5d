// One of each record, every field with a value of its own, reserved ones too. See GoldenImage.h.

#ifndef OVARD_TESTS_RECORDS_GOLDEN_RECORD_IMAGES_H
#define OVARD_TESTS_RECORDS_GOLDEN_RECORD_IMAGES_H

namespace golden {

/// `reqcmd`
inline constexpr const char* kRequest = R"image(
       0 text     64  "data_server"                               # name
      64 text     32  "2.5"                                       # version
      96 text   1024  "/home/kelvo/root/data_server -p 5"         # command
    1120 text     64  "/tmp/pid/home/kelvo/root/data_server.pid"  # pid file
    1184 number    4  00 00 00 02                                 # port type: Eth
    1188 number    4  00 00 01 F6                                 # port: 502
    1192 number    4  00 00 00 05                                 # action: restart
    1196 number    4  FF FF FF F9                                 # priority: -7
    1200 number    4  00 01 86 A0                                 # delay: 100000
    1204 bytes     1  A1                                          # keep-alive
    1205 bytes     1  A2                                          # no reply
    1206 bytes     1  A3                                          # heartbeat
    1207 bytes     1  A4                                          # reserved
    1208 number    4  00 00 00 01                                 # restart policy: all
    1212 number    4  00 01 51 80                                 # life limit: 86400
)image";

/// `response_struct`
inline constexpr const char* kReply = R"image(
       0 number    4  FF FF FF EC                        # code: -20
       4 number    4  00 00 00 01                        # completed
       8 text   1024  "data_server: not found" 0A        # message
)image";

/// `appinfo`
inline constexpr const char* kApplication = R"image(
       0 number    4  00 00 04 D2                                 # process id: 1234
       4 text     64  "data_server"                               # name
      68 text     32  "2.5"                                       # version
     100 text   1024  "/home/kelvo/root/data_server -p 5"         # command
    1124 text     64  "/tmp/pid/home/kelvo/root/data_server.pid"  # pid file
    1188 number    4  00 00 00 04                                 # status: started
    1192 number    4  65 53 F1 00                                 # start: 1700000000
    1196 number    4  00 03 0D 40                                 # uptime: 200000
    1200 number    4  00 00 00 02                                 # port type: Eth
    1204 number    4  00 00 01 F6                                 # port: 502
    1208 number    4  FF FF FF F9                                 # priority: -7
    1212 bytes     1  A1                                          # check flag
    1213 bytes     1  A2                                          # keep-alive
    1214 bytes     1  A3                                          # heartbeat
    1215 bytes     1  A4                                          # reserved
    1216 number    4  00 00 00 01                                 # restart policy: all
    1220 number    4  00 01 51 80                                 # life limit: 86400
)image";

/// `DHCP_INFO_STRUCT`; each text fills its field but for the NUL.
inline constexpr const char* kLease = R"image(
       0 bytes    36  61*35 00        # client status
      36 bytes    20  62*19 00        # renew lease time
      56 bytes    20  63*19 00        # server address
      76 bytes    20  64*19 00        # client address
      96 bytes    20  65*19 00        # subnet mask
     116 bytes    20  66*19 00        # router address
     136 bytes    20  67*19 00        # DNS server address
     156 bytes    20  68*19 00        # SMTP server address
     176 bytes    20  69*19 00        # SNTP server address
)image";

/// `DHCPV6_INFO_STRUCT`; each text fills its field but for the NUL.
inline constexpr const char* kLease6 = R"image(
       0 bytes    36  61*35 00        # client status
      36 bytes    20  62*19 00        # renew lease time
      56 bytes    68  63*67 00        # client address
)image";

/// `systeminfo_struct`
inline constexpr const char* kStatistics = R"image(
       0 bytes    16  5A*16                       # reserved
      16 number    4  3F A0 00 00                 # uptime: 1.25
      20 number    4  40 10 00 00                 # idle time: 2.25
      24 bytes     8  00 00 01 8B CF 4C D1 80     # boot time: 1699990000000, on every machine so
      32 number    8  00 00 00 09 87 65 43 21     # context switches: 40926266145
      40 number    8  00 00 00 01 23 45 67 89     # interrupts: 4886718345
      48 number    4  40 50 00 00                 # load average of 1 minute: 3.25
      52 number    4  40 88 00 00                 # of 5 minutes: 4.25
      56 number    4  40 A8 00 00                 # of 15 minutes: 5.25
      60 number    4  5A 5B 5C 5D                 # reserved
      64 number    4  40 C8 00 00                 # processor time, user: 6.25
      68 number    4  40 E8 00 00                 # system: 7.25
      72 number    4  41 04 00 00                 # nice: 8.25
      76 number    4  41 14 00 00                 # idle: 9.25
      80 number    4  41 24 00 00                 # I/O wait: 10.25
      84 number    4  41 34 00 00                 # interrupts: 11.25
      88 number    4  41 44 00 00                 # soft interrupts: 12.25
      92 number    4  6A 6B 6C 6D                 # reserved
      96 number    4  00 03 1A 2B                 # memory, total: 203307
     100 number    4  00 02 59 4D                 # used: 153933
     104 number    4  00 00 C0 DE                 # free: 49374
     108 number    4  00 00 12 34                 # buffers: 4660
     112 number    4  00 00 56 78                 # cached: 22136
     116 number    4  00 00 9A BC                 # active: 39612
     120 number    4  00 00 DE F0                 # inactive: 57072
     124 number    4  FF FF FF FE                 # shared: -2
     128 number    8  00 00 00 01 40 00 00 00     # eth0, received bytes: 5368709120
     136 number    8  00 00 00 01 00 00 00 0F     # packets: 4294967311
     144 number    4  00 01 00 03                 # errors: 65539
     148 number    4  00 01 00 04                 # dropped: 65540
     152 number    4  00 01 00 06                 # frame errors: 65542
     156 number    4  00 01 00 05                 # FIFO errors: 65541
     160 number    4  7A 7B 7C 7D                 # reserved
     164 number    4  42 C9 00 00                 # data rate: 100.5
     168 number    8  00 00 00 00 00 00 28 00     # sent bytes: 10240
     176 number    8  FF FF FF FF FF FF EC 78     # packets: -5000
     184 number    4  00 01 00 0B                 # errors: 65547
     188 number    4  00 01 00 0C                 # dropped: 65548
     192 number    4  8A 8B 8C 8D                 # reserved
     196 number    4  00 01 00 0D                 # FIFO errors: 65549
     200 number    4  00 01 00 0E                 # collisions: 65550
     204 number    4  C3 48 80 00                 # data rate: -200.5
     208 number    8  00 00 00 00 00 00 14 00     # eth1, received bytes: 5120
     216 number    8  00 00 00 00 00 00 03 E8     # packets: 1000
     224 number    4  00 02 00 03                 # errors: 131075
     228 number    4  00 02 00 04                 # dropped: 131076
     232 number    4  00 02 00 06                 # frame errors: 131078
     236 number    4  00 02 00 05                 # FIFO errors: 131077
     240 number    4  9A 9B 9C 9D                 # reserved
     244 number    4  43 96 40 00                 # data rate: 300.5
     248 number    8  00 00 00 00 00 00 0A 00     # sent bytes: 2560
     256 number    8  00 00 00 00 00 00 04 D2     # packets: 1234
     264 number    4  00 02 00 0B                 # errors: 131083
     268 number    4  00 02 00 0C                 # dropped: 131084
     272 number    4  AA AB AC AD                 # reserved
     276 number    4  00 02 00 0D                 # FIFO errors: 131085
     280 number    4  00 02 00 0E                 # collisions: 131086
     284 number    4  C3 C8 40 00                 # data rate: -400.5
)image";

/// `meterinfo_struct`; each text fills its field but for the NUL.
inline constexpr const char* kMeter = R"image(
       0 bytes    32  61*31 00        # kernel release
      32 bytes    32  62*31 00        # kernel version
      64 bytes    32  63*31 00        # IPv4 address of eth0
      96 bytes    32  64*31 00        # of eth1
     128 bytes    64  65*63 00        # IPv6 address of eth0
     192 bytes    64  66*63 00        # of eth1
)image";

/// `application_header`
inline constexpr const char* kHeader = R"image(
       0 number    4  00 00 00 83                 # count: 131
       4 number    4  00 00 00 7F                 # maximum: 127
       8 bytes    32  61*31 00                    # file version
      40 bytes    32  62*31 00                    # file date
      72 bytes    40  5A*40                       # reserved
     112 number    4  F1 F2 F3 F4                 # health of IEC 61850
     116 number    2  E1 E2                       # health of the system
     118 bytes    10  5B*10                       # reserved
)image";

/// `application_record`
inline constexpr const char* kPublishedApplication = R"image(
       0 bytes    32  61*31 00                    # name
      32 bytes    32  62*31 00                    # version
      64 bytes     8  00 00 01 8B CF D6 25 C0     # start: 1699999000000, on every machine so
      72 number    4  00 00 04 D2                 # process id: 1234
      76 bytes    16  63*15 00                    # status
      92 number    4  FF FF FF F9                 # priority: -7
      96 number    4  00 00 00 01                 # restart policy: all
     100 number    4  00 01 51 80                 # life limit: 86400
     104 bytes    16  64*15 00                    # port type
     120 number    4  00 00 01 F6                 # port: 502
     124 number    4  F0 03 0D 40                 # uptime: 4026731840
)image";

} // namespace golden

#endif // OVARD_TESTS_RECORDS_GOLDEN_RECORD_IMAGES_H
