// catalog.cpp - Fanout2Catalog, the default texts of the service's messages.
//
// Entry 0 is the catalogue's name and entry N the default text of message N.
// The texts are shared with the service's other programs and with the
// translated catalogues, which are looked up by name and number: every byte
// (including trailing blanks and doubled spaces) is part of the interface.
// Positional placeholders ("%1$s") are substituted when a message is
// rendered. Do not edit an entry in place; a changed text needs a new number.

#include "fanout/catalog.h"

extern "C" {

const char* const Fanout2Catalog[FANOUT2_CATALOG_SIZE] = {
    "Fanout2Catalog",
    /*   1 */ "There is an invalid multibyte character in the string: %1$s.\n",
    /*   2 */
    "The specified depot entry ID (%1$s) with version (%2$s) does not exist. The depot entry "
    "was not removed.\n",
    /*   3 */
    "The specified segment ID (%1$s) with version (%2$s) is locked and cannot be removed.\n",
    /*   4 */
    "The specified segment ID (%1$s) with version (%2$s) cannot be removed because it is "
    "currently in use. Try again later.\n",
    /*   5 */
    "The specified segment ID (%1$s) with version (%2$s) is permanent and cannot be removed.\n",
    /*   6 */ "Cannot reserve %1$d KB in the depot. The segment file is too large.\n",
    /*   7 */
    "Cannot reserve %1$d KB because the depot has no space left. Check repeater configuration "
    "for disk space.\n",
    /*   8 */
    "A checkpoint offset was not set for segment ID (%1$s) version (%2$s) because the segment "
    "was locked.\n",
    /*   9 */ "Cannot create the directory because the path name is NULL.\n",
    /*  10 */ "Cannot create the directory %1$s.\n",
    /*  11 */ "Cannot open the file %1$s.\n",
    /*  12 */ "Cannot create the file %1$s. The error code is %2$d.\n",
    /*  13 */ "Cannot close the file because the file handle is NULL.\n",
    /*  14 */ "Cannot close the file %1$s.\n",
    /*  15 */ "Cannot remove the file because the file handle is NULL.\n",
    /*  16 */ "Cannot remove the file %1$s.\n",
    /*  17 */ "Cannot delete the file because the file handle is NULL.\n",
    /*  18 */ "Cannot read from the file because the file handle is NULL.\n",
    /*  19 */
    "Cannot read from file %1$s. The number of bytes to read was %2$d and the error code is "
    "%3$d.\n",
    /*  20 */ "Cannot write to the file because the file handle is NULL.\n",
    /*  21 */ "Cannot write to the file %1$s. The number of bytes to write = %2$d.\n",
    /*  22 */ "Cannot seek the file because the file handle is NULL.\n",
    /*  23 */ "A seek operation failed on the file %1$s. The error code is errno=%2$d.\n",
    /*  24 */ "Failed to get the file status for the file %1$s.\n",
    /*  25 */ "Failed to access the file %1$s with the mode %2$d.\n",
    /*  26 */ "The client exited unexpectedly.\n",
    /*  27 */ "The send operation was interrupted.\n",
    /*  28 */ "The client terminated early.\n",
    /*  29 */ "Cannot write to the stream because the specified stream type %1$d is invalid.\n",
    /*  30 */ "Cannot close the net stream because the specified stream type %1$d is invalid.\n",
    /*  31 */ "Cannot save the modified TOC because the TOC pointer is NULL.\n",
    /*  32 */ "Cannot clone a path name that is NULL.\n",
    /*  33 */ "Cannot append to a path name that is NULL.\n",
    /*  34 */ "Failed to encode data. The error code is %1$d.\n",
    /*  35 */ "Failed to decode data. The error code is %1$d.\n",
    /*  36 */ "Unable to find the property associated with the key %1$s.\n",
    /*  37 */ "The wrong property type was specified for the key %1$s.\n",
    /*  38 */ "The Distribution Manager is not running so the operation cannot continue.\n",
    /*  39 */
    "The item was not replaced in the sequence. The index %1$d is not within the sequence "
    "length %2$d.\n",
    /*  40 */ "Could not build the result job for the distribution %1$s.\n",
    /*  41 */ "The entry was not added to the file cache.\n",
    /*  42 */ "The next entry was not added to the file cache.\n",
    /*  43 */ "The entry was not deleted from the file cache.\n",
    /*  44 */
    "An error occurred while creating the file cache due to one or more of the following "
    "parameters: \n maxCacheSize = %1$u, minCacheSize = %2$u, and pageSize = %3$u.\n ",
    /*  45 */ "Failed to create file cache due to insufficient memory.\n",
    /*  46 */ "Could not destroy the file cache due to invalid data.\n",
    /*  47 */ "Could not start the file cache due to an invalid file structure.\n",
    /*  48 */ "Could not enable the file cache due to an invalid structure.\n",
    /*  49 */ "Could not enable the file cache because the file is already in the cache.\n",
    /*  50 */ "Could not stop the file cache because the file cache structure is invalid.\n",
    /*  51 */ "Could not stop the file cache because the hash table is not empty.\n",
    /*  52 */ "Could not start the file cache.\n",
    /*  53 */ "Could not stop the file cache.\n",
    /*  54 */ "Could not get data from the file cache due to bad thread information.\n",
    /*  55 */ "Could not get data from the file cache due to a null file cache.\n",
    /*  56 */ "Could not get data from the file cache reader because a thread skipped data.\n",
    /*  57 */ "Could not initialize the file cache due to insufficient memory.\n",
    /*  58 */
    "Could not delete the entry from the file cache because the key (%1$s) was not found.\n",
    /*  59 */
    "Cannot execute the command type (%1$d) because the distribution reference is NULL.\n",
    /*  60 */
    "The command %2$d was not executed for target %3$s because the distribution %1$s could "
    "not be found.\n",
    /*  61 */
    "The %3$d command would not be executed for the distribution %2$s because the target %1$s "
    "is invalid.\n",
    /*  62 */ "Could not distribute because the repeater (%1$s) is not running.\n",
    /*  63 */
    "The specified segment ID (%1$s) with version (%2$s) were not found in the repeater "
    "(%3$s).\n",
    /*  64 */ "Could not send because the repeater (%1$s) is not running.\n",
    /*  65 */ "Could not get distribution states because the repeater (%1$s) is not running.\n",
    /*  66 */ "Could not set properties for the repeater (%1$s) because it is not running.\n",
    /*  67 */
    "Could not set the permanent storage configuration due to an invalid permanent_storage "
    "value (%1$d).\n",
    /*  68 */
    "Could not set the disk_max configuration due to an invalid value (%1$u). The value for "
    "disk_max must be positive.\n",
    /*  69 */
    "Could not set the mem_max configuration due to an invalid value (%1$d). The value for "
    "mem_max must be positive.\n",
    /*  70 */
    "Could not set the send_timeout configuration due to an invalid value (%1$d). The value "
    "for send_timeout must be positive.\n",
    /*  71 */
    "Could not set the execute_timeout configuration due to an invalid value (%1$d). The "
    "value for execute_timeout must be positive.\n",
    /*  72 */
    "Could not set the notify_interval configuration due to an invalid value (%1$d). The "
    "value for notify_interval must be positive.\n",
    /*  73 */
    "Could not set the conn_retry_interval configuration due to an invalid value (%1$d). The "
    "value for conn_retry_interval must be positive.\n",
    /*  74 */
    "Could not set the retry_ep_cutoff configuration due to an invalid value (%1$d). The "
    "value for retry_ep_cutoff must be positive.\n",
    /*  75 */
    "Could not set the net load configuration due to an invalid value (%1$d). The value for "
    "net_load must be positive.\n",
    /*  76 */
    "Could not set the packet_size configuration due to an invalid value (%1$d). The value "
    "for packet_size must be positive.\n",
    /*  77 */
    "Could not set the target_netload configuration due to an invalid value (%1$d). The value "
    "for target_netload must be positive.\n",
    /*  78 */ "Could not get properties for the repeater (%1$s) because it is not running.\n",
    /*  79 */ "Could not add the depot entries because the repeater (%1$s) is not running.\n",
    /*  80 */ "Could not remove the depot entries because the repeater (%1$s) is not running.\n",
    /*  81 */ "Could not get the depot entries because the repeater (%1$s) is not running.\n",
    /*  82 */ "Could not get the depot properties because the repeater (%1$s) is not running.\n",
    /*  83 */ "Could not get the jobs because the repeater (%1$s) is not running.\n",
    /*  84 */ "Cannot control the jobs because the repeater (%1$s) is not running.\n",
    /*  85 */ "Cannot control the jobs because no target is specified.\n",
    /*  86 */ "Cannot receive the data because the repeater (%1$s) is not running.\n",
    /*  87 */ "Could not initialize the repeater due to insufficient memory.\n",
    /*  88 */ "Could not send the event (%1$d) because of an internal error.\n",
    /*  89 */
    "Could not set the max_sessions configuration value    because the specified value %1$d "
    "for priority %2$d was not greater than or equal to 0.\n",
    /*  90 */ "Could not notify the job (%1$s) in the RECV queue due to an internal error.\n",
    /*  91 */ "An unknown timer event occurred due to a repeater error.\n",
    /*  92 */ "The timer expired but could not notify due to an internal error.\n",
    /*  93 */ "Could not find the RECEIVE job in the RUNNING JOBS list.\n",
    /*  94 */ "The specified repeater (%1$s) could not send the DISTRIBUTION RECEIVED EVENT.\n",
    /*  95 */ "The repeater is out of memory.\n",
    /*  96 */ "Could not add the statistics to the segment because the segment was NULL.\n",
    /*  97 */ "Could not add the timer.\n",
    /*  98 */ "An authorization failure occurred because the capabilities signature was NULL.\n",
    /*  99 */ "The specified endpoint %1$d.%2$d is not serviced by the gateway %3$s.\n",
    /* 100 */
    "Could not find the method header %1$s::%2$s for interpreter type %3$s. The error code is "
    "%4$d %5$s.\n",
    /* 101 */ "The client %1$s is either unreachable or the connection was lost.\n",
    /* 102 */ "The client %1$s failed to start.\n",
    /* 103 */ "The specified endpoint %1$s is not a valid endpoint object reference.\n",
    /* 104 */ "The location level %1$d for method %2$s is invalid.\n",
    /* 105 */ "The distribution %1$s for receiver %2$s has been paused.\n",
    /* 106 */ "The distribution %1$s for receiver %2$s has been canceled.\n",
    /* 107 */ "An error occurred while reading from the cache. The error code is %1$d.\n",
    /* 108 */ "A segment transfer to the receiver %1$s was interrupted.\n",
    /* 109 */ "There was a ECP protocol violation during a bulk receive from receiver %1$s.\n",
    /* 110 */ "Could not obtain the modified TOC from the receiver %1$s.\n",
    /* 111 */ "An ECP protocol violation occurred during a data transfer to receiver %1$s.\n",
    /* 112 */ "The repeater %1$s could not connect to the receiver %2$s.\n",
    /* 113 */ "The method %1$s on target %2$s failed due to the error %3$d.\n",
    /* 114 */ "Could not reset the target context because the real target is NULL.\n",
    /* 115 */ "Could not update the locked segment ID %1$s with version %2$s.\n",
    /* 116 */ "Could not open the disk file due to an invalid stream type (%d).\n",
    /* 117 */ "Cannot write to the stream type %d because it is read-only.\n",
    /* 118 */ "Could not register. Check the Distribution Manager log file.\n",
    /* 119 */
    "Could not set the debug level due to an invalid value %1$d. The value for debug_level "
    "must be positive.\n",
    /* 120 */
    "Could not set the debug delay due to an invalid value %1$d. The value for debug_delay "
    "must be positive.\n",
    /* 121 */
    "Could not get the capabilities list. The error code is %1$d and the error is %2$s.\n",
    /* 122 */ "Cannot rename the file %1$s.\n",
    /* 123 */
    "Could not set the maximum packet size for the repeater due to an invalid value %1$d. The "
    "value for packet_size must be less than or equal to %2$d.\n",
    /* 124 */
    "The Fanout repeater was unable to dispatch jobs because the repeater (%1$s) is not "
    "running.\n",
    /* 125 */ "Unable to locate job (%1$s) in distribution job queue.\n",
    /* 126 */
    "There was an invalid call to function (%1$s) from an Fanout 2 managed node repeater.\n",
    /* 127 */ "The Fanout repeater was not initialized so the request failed.\n",
    /* 128 */
    "The distribution was not deleted from the database because distribution %1$s is not yet "
    "complete. All targets must complete before a database entry can be deleted.\n",
    /* 129 */
    "Distribution %1$s was not found in the database.\nThe distributions were not deleted.\n",
    /* 130 */ "The Fanout repeater %1$s is not running so the request was not completed.\n",
    /* 131 */ "A thread was forced to abort.\n",
    /* 132 */ "The file %1$s exceeded the allowed disk space.\n",
    /* 133 */ "There are no more clients for input data.\n",
    /* 134 */
    "Usage: \n %1$s\n %2$s help\n %3$s repeater_name describe\n %4$s repeater_name add "
    "id^version [source_host:]file\n %5$s repeater_name image id^version [source_host:]file "
    "image_dir\n %6$s repeater_name list [id^version] [-l]\n %7$s repeater_name delete "
    "id^version\n %8$s repeater_name purge\n",
    /* 135 */ "Name",
    /* 136 */ "Version",
    /* 137 */ "Type",
    /* 138 */ "Size (KB)",
    /* 139 */ "Update time\n",
    /* 140 */ "%1$s",
    /* 141 */ "%1$t{%Y/%m/%d %H:%M:%S}\n",
    /* 142 */ "\nEntry #%1$d: \n",
    /* 143 */ "Id: \t\t\t%1$s\n",
    /* 144 */ "Version: \t\t%1$s\n",
    /* 145 */ "Bytes received: \t%1$d(%2$d%%)\n",
    /* 146 */ "Location: \t\t%1$s\n",
    /* 147 */ "File  change time:\t",
    /* 148 */ "File  modify time:\t",
    /* 149 */ "Depot create time:\t",
    /* 150 */ "Depot access time:\t",
    /* 151 */ "Depot modify time:\t",
    /* 152 */ "Access count: \t\t%1$d\n",
    /* 153 */ "Modification count: \t%1$d\n",
    /* 154 */ "Reference count: \t%1$d\n",
    /* 155 */ "Storage status: \t%1$s\n",
    /* 156 */ "Cannot delete the entry %1$s because the segment is locked.\n",
    /* 157 */ "Cannot delete the entry %1$s because the entry is in use.\n",
    /* 158 */ "Cannot delete the entry %1$s because the entry does not exist.\n",
    /* 159 */ "Depot Location = \t%1$s\n",
    /* 160 */ "Depot Size = \t\t%1$s (KB)\n",
    /* 161 */ "Temporary Storage = \t%1$s (KB)\n",
    /* 162 */ "Permanent Storage = \t%1$s (KB)\n",
    /* 163 */ "Total Storage = \t%1$s (KB)\n",
    /* 164 */ "Free Space = \t\t%1$s (KB)\n",
    /* 165 */ "There is no repeater associated with the name %1$s.\n",
    /* 166 */
    "The specified segment spec is invalid. The spec must contain both an ID and a version.\n",
    /* 167 */ "An unrecognized stop code %1$d was sent to the receiving job.\n",
    /* 168 */ "Could not find the job sent to target %1$s.\n ",
    /* 169 */ "The distribution %1$s for receiver %2$s has expired.\n",
    /* 170 */ "%1$s was not found in the depot.\n",
    /* 171 */ "Distribution %1$s was not found in the database.\n",
    /* 172 */ "Cannot run the command because distribution %1$s was completed.\n",
    /* 173 */ "Cannot run the command because distribution %1$s was expired.\n",
    /* 174 */
    "Unable to send the command to the source repeater %1$s. Verify that the source repeater "
    "is running and that the specified distribution originated in this Kelzone.\n",
    /* 175 */ "The repeater (%1$s) could not be restarted because it is not running.\n",
    /* 176 */
    "The repeater (%1$s) could not be restarted because it failed to successfully "
    "initialize.\n",
    /* 177 */ "Unable to stop the repeater (%1$s). The distribution queue will not be deleted.\n",
    /* 178 */ "The repeater (%1$s) failed receiving a segment: %2$s",
    /* 179 */ " The repeater failed to send all data to the target.  %1$d of %2$d bytes sent.\n",
    /* 180 */ "Unable to resolve method dependencies for %1$s.",
    /* 181 */ "The distribution %1$s for receiver %2$s has roamed.\n",
    /* 182 */ "The segment %1$s^%2$s required for this distribution could not be found.\n",
    /* 183 */
    "The specified segment ID (%1$s) with version (%2$s) cannot be saved to the depot "
    "filesystem: %3$s\n",
    /* 184 */ "The distribution %1$s for receiver %2$s has been rejected.\n",
    /* 185 */ "Receiver %1$s is not a Mobile endpoint.",
    /* 186 */ "Receiver %1$s is not roamable as it may have been deleted.\n",
    /* 187 */
    "Distribution %1$s already exists %2$s.  Each distribution Id specified must be unique.",
    /* 188 */
    "Could not set repeater_multicast due to an invalid value (%1$d).  Value must be TRUE or "
    "FALSE.\n",
    /* 189 */
    "Could not set endpoint_multicast due to an invalid value (%1$d).  Value must be TRUE or "
    "FALSE.\n",
    /* 190 */
    "Could not set default_multicast due to an invalid value (%1$d).  Value must be TRUE or "
    "FALSE.\n",
    /* 191 */
    "Could not set fail_unavailable due to an invalid value (%1$d).  Value must be TRUE or "
    "FALSE.\n",
    /* 192 */
    "Could not set SLOW_LINK due to an invalid value (%1$d).  Value must be TRUE or FALSE.\n",
    /* 193 */ "The max number of concurrent send methods (%1$d) has been reached.",
    /* 194 */
    "The distribution cannot be started because the fanoutstatus database is offline. "
    "Re-establish the database connection, and resubmit the distribution.\n",
    /* 195 */
    "The distribution cannot be started because the fanoutstatus database is out of space.\n",
    /* 196 */
    "The distribution cannot be started because there was an error writing to the "
    "fanoutstatus database.\n",
    /* 197 */
    "The distribution %1$s for receiver %2$s has expired. The last known error message is as "
    "follows: %3$s \n",
    /* 198 */
    "The distribution %1$s for receiver %2$s has expired. No other information regarding the "
    "distribution failure is available. \n",
    /* 199 */
    "A result for distribution %1$s could not be saved in the fanoutstatus database due to a "
    "database error.\n",
    /* 200 */
    "The specified segment ID (%1$s) with version (%2$s) cannot be removed because it has not "
    "yet been processed. Try again later.\n",
    /* 201 */
    "WARNING: Using the repeater depot location for the image_dir will disregard the disk_max "
    "setting.\n",
    /* 202 */ "The EnqueueCancelRequest method received an invalid distribution ID.",
    /* 203 */ "The FERRY command '%1$s' with FERRY handle '%2$u' failed with a return of %3$d.",
    /* 204 */ "The FERRY command '%1$s' with FERRY handle '%2$u' timed out after %3$d seconds.",
    /* 205 */ "The FERRY package '%1$s' does not exist.",
    /* 206 */
    "The FERRY package '%1$s' can not be retrieved due to the depot server being too busy.  "
    "Retry in %2$d seconds.",
    /* 207 */ "from_ferry can not be used with from_depot, from_fileserver, from_cd or multicast.",
    /* 208 */ "from_ferry can not be used to load depot, unload depot, or create image.",
    /* 209 */ "from_ferry can not be used with dataless distributions.",
    /* 210 */ "from_ferry can only be used with message type distribute.",
    /* 211 */ "The get size of FERRY package '%1$s' was stopped with a '%2$s' command.",
};

}  // extern "C"
