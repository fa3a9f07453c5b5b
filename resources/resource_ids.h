// Every resource id of the applet and its windows: the one list that the resource script
// (chronwarden.rc), the dialog descriptions (dialogs.inc) and the code share. Plain #defines,
// because the resource compiler reads this file too.
#pragma once

// Icons.
#define IDI_APPLET 1            // the applet's icon (Control Panel, About page, uninstall entry)
#define IDI_STATUS_UNKNOWN 142  // clock status: unknown
#define IDI_STATUS_SYNCED 143   // clock status: synchronized
#define IDI_STATUS_BAD 144      // clock status: not synchronized
#define IDI_STATUS_OFF 145      // clock status: off by more than a second

// Cursors.
#define IDC_CW_LINK 5           // hand over the documentation links
#define IDC_CW_GRAPH_HAND 6001  // hand over a point of the drift graph

// Strings.
#define IDS_APPLET_NAME 2       // "Chronwarden"
#define IDS_APPLET_INFO 3       // the applet's description in the Control Panel

// Dialog templates.
#define IDD_CLIENT 100          // Client page
#define IDD_SERVER 147          // Server page
#define IDD_AGENT 148           // Agent page
#define IDD_SERVICE 149         // Service page
#define IDD_CLIENT_W2K 151      // Client page for a Windows 2000 target
#define IDD_WAIT 152            // please-wait window of install and remove
#define IDD_ABOUT 153           // About page
#define IDD_GRAPH 6003          // drift graph window

// Controls shared by several pages.
#define IDC_STATUS_ICON 99      // status / verdict icon
#define IDC_TITLE 1001          // product and version line
#define IDC_LINK 2280           // documentation link

// Client page (100, 151).
#define IDC_SYNC_NOSYNC 1002
#define IDC_SYNC_NT5DS 1003
#define IDC_SYNC_DISABLED 1004
#define IDC_SYNC_NTP 1005
#define IDC_SYNC_ALLSYNC 1017
#define IDC_SERVER1 1006
#define IDC_MODE1 1007
#define IDC_SERVER2 1010
#define IDC_MODE2 1009
#define IDC_SERVER3 1008
#define IDC_MODE3 1011
#define IDC_SERVER4 1012
#define IDC_MODE4 1013
#define IDC_SERVER5 1014
#define IDC_MODE5 1015
#define IDC_SERVER6 1018
#define IDC_MODE6 1019
#define IDC_VARIANCE1 2240
#define IDC_VARIANCE2 2241
#define IDC_VARIANCE3 2242
#define IDC_VARIANCE4 2243
#define IDC_VARIANCE5 2244
#define IDC_VARIANCE6 2245
#define IDC_STRATUM1 2247
#define IDC_STRATUM2 2248
#define IDC_STRATUM3 2249
#define IDC_STRATUM4 2250
#define IDC_STRATUM5 2251
#define IDC_STRATUM6 2252
#define IDC_SYNC_NOW 2238
#define IDC_STATUS_TEXT 2258
#define IDC_TIME_SOURCE 2262
#define IDC_SPECIAL_LABEL 2283
#define IDC_SPECIAL_UNIT 2275
#define IDC_SPECIAL_INTERVAL 2285
#define IDC_CLIENT_NOTE 2282

// Server page (147).
#define IDC_SERVE_DISABLED 2249
#define IDC_SERVE_ENABLED 2250
#define IDC_SERVE_AUTO 2251
#define IDC_RELIABLE_NEVER 2252
#define IDC_RELIABLE_ALWAYS 2253
#define IDC_RELIABLE_AUTO 2254
#define IDC_NET_TIME 1016
#define IDC_RELIABLE_W2K 2288
#define IDC_TEST_SERVER 2255
#define IDC_TEST_RESULT 2256

// Agent page (148).
#define IDC_AGENT_ENABLED 2274
#define IDC_REF_LABEL 2275
#define IDC_REF_SERVER 2265
#define IDC_REF_HINT 2276
#define IDC_INTERVAL_LABEL 2277
#define IDC_INTERVAL 2266
#define IDC_INTERVAL_UNIT 2278
#define IDC_ALERT_UNVERIFIED 2271
#define IDC_ALERT_OFF 2272
#define IDC_THRESHOLD 2273
#define IDC_THRESHOLD_UNIT 2279
#define IDC_AGENT_NOTE 2283
#define IDC_MANAGERS_LABEL 2300
#define IDC_MANAGERS 2301
#define IDC_HISTORY 2257
#define IDC_CLEAR_HISTORY 2247
#define IDC_SHOW_GRAPH 2246
#define IDC_REMOVE_AGENT 2248

// Service page (149).
#define IDC_SERVICE_STATUS 2239
#define IDC_START_TYPE 2233
#define IDC_START_STOP 2236
#define IDC_LOG_GROUP 2289
#define IDC_LOG_ENABLED 2266
#define IDC_LOG_PATH 2267
#define IDC_LOG_SIZE 2268
#define IDC_LOG_ENTRIES 2269
#define IDC_SHOW_LOG 2270
#define IDC_LOG_PATH_LABEL 2275
#define IDC_LOG_SIZE_LABEL 2276
#define IDC_LOG_SIZE_UNIT 2277
#define IDC_LOG_ENTRIES_LABEL 2278
#define IDC_LOG_HELP1 2279
#define IDC_LOG_HELP2 2283

// Please-wait window (152).
#define IDC_WAIT_TEXT 1001
#define IDC_PROGRESS 2290

// About page (153).
#define IDC_ABOUT_TEXT 2293

// Drift graph window (6003).
#define IDC_GRAPH_DESCRIPTION 6002
#define IDC_GRAPH_PLOT 6004
#define IDC_GRAPH_SCROLL 6005
#define IDC_GRAPH_LABEL 6006
#define IDC_GRAPH_SCALE 6007
#define IDC_GRAPH_RAW_DATA 6008
#define IDC_GRAPH_OPEN_FILE 6009

// Private messages.
#define CW_MSG_WORK_DONE 10933   // 0x2AB5: the install/remove worker is done (lparam: result); the graph's redraw request
#define CW_MSG_GRAPH_CLOSED 3029 // a modeless graph window closed (to its parent)
