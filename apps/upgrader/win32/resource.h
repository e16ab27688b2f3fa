// Numbers of the string resources. Translated texts in upgraderStrings.rc; support refers to them by number.
#pragma once

#define IDS_REBOOT_MESSAGE 1001
#define IDS_REBOOT_TITLE 1002
#define IDS_USAGE_HEADING 1003
#define IDS_USAGE_INSTALLER_ARGS 1004
#define IDS_USAGE_DELETE_FILES 1005
#define IDS_USAGE_SHUTDOWN 1006
#define IDS_USAGE_HELP 1007
#define IDS_USAGE_TITLE 1008
#define IDS_USAGE_OPTIONS 1009
