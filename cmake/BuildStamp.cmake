# Writes the header STAMP from TEMPLATE with the date and time of now, or of SOURCE_DATE_EPOCH.

# Asked for once: the parts must not come from two different seconds.
string(TIMESTAMP now "%Y %b %d %H:%M:%S %y%m%d.%H%M%S" UTC)
separate_arguments(now)
list(GET now 0 year)
list(GET now 1 month)
list(GET now 2 day)
list(GET now 3 OVARD_BUILD_TIME)
list(GET now 4 OVARD_BUILD_STAMP)
string(REGEX REPLACE "^0" " " day "${day}")
set(OVARD_BUILD_DATE "${month} ${day} ${year}")
configure_file(${TEMPLATE} ${STAMP} @ONLY)
