// A request file of three records, as it lies on the disk. See GoldenImage.h.

#ifndef OVARD_TESTS_RECORDS_GOLDEN_REQUEST_FILE_IMAGE_H
#define OVARD_TESTS_RECORDS_GOLDEN_REQUEST_FILE_IMAGE_H

namespace golden {

inline constexpr const char* kRequestFile = R"image(
       0 text     64  "data_server"                               # name
      64 text     32  "2.5"                                       # version
      96 text   1024  "/home/kelvo/root/data_server -p 5"         # command
    1120 text     64  "/tmp/pid/home/kelvo/root/data_server.pid"  # pid file
    1184 number    4  00 00 00 02                                 # port type: Eth
    1188 number    4  00 00 01 F6                                 # port: 502
    1192 number    4  00 00 00 00                                 # action: start
    1196 number    4  FF FF FF F9                                 # priority: -7
    1200 number    4  00 00 00 00                                 # delay
    1204 bytes     1  00                                          # keep-alive: no
    1205 bytes     1  01                                          # no reply: yes
    1206 bytes     1  01                                          # heartbeat: yes
    1207 bytes     1  00                                          # reserved
    1208 number    4  00 00 00 01                                 # restart policy: all
    1212 number    4  00 01 51 80                                 # life limit: 86400

    1216 text     64  "modbus_port"                               # name
    1280 text     32  ""                                          # version
    1312 text   1024  "/home/kelvo/modbus/modbus_port"            # command
    2336 text     64  "/tmp/pid/home/kelvo/modbus/modbus_port.pid" # pid file
    2400 number    4  00 00 00 01                                 # port type: COM
    2404 number    4  00 00 00 03                                 # port: 3
    2408 number    4  00 00 00 00                                 # action: start
    2412 number    4  00 00 00 00                                 # priority
    2416 number    4  00 00 07 D0                                 # delay: 2000
    2420 bytes     1  01                                          # keep-alive: yes
    2421 bytes     1  00                                          # no reply: no
    2422 bytes     1  00                                          # heartbeat: no
    2423 bytes     1  00                                          # reserved
    2424 number    4  00 00 00 00                                 # restart policy: self
    2428 number    4  00 00 00 00                                 # life limit

    2432 text     64  "data_server"                               # name
    2496 text     32  ""                                          # version
    2528 text   1024  ""                                          # command
    3552 text     64  ""                                          # pid file
    3616 number    4  00 00 00 00                                 # port type: None
    3620 number    4  00 00 00 00                                 # port
    3624 number    4  00 00 00 05                                 # action: restart
    3628 number    4  00 00 00 00                                 # priority
    3632 number    4  00 00 00 00                                 # delay
    3636 bytes     4  00*4                                        # flags, reserved
    3640 number    4  00 00 00 00                                 # restart policy: self
    3644 number    4  00 00 00 00                                 # life limit
)image";

} // namespace golden

#endif // OVARD_TESTS_RECORDS_GOLDEN_REQUEST_FILE_IMAGE_H
