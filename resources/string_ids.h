#pragma once
/* Ids of the module's string table. Plain macros: the resource compiler reads this file too. */

#define IDS_PLATFORM_NAME          1
#define IDS_HANDLER_NAME           2
#define IDS_HANDLER_TYPE_NAME      3
#define IDS_HANDLER_DESCRIPTION    4
#define IDS_CALL_SUCCEEDED         50
#define IDS_WORD_GET               100
#define IDS_WORD_SET               101
#define IDS_WORD_IS                102
#define IDS_WORD_PARAM             109
#define IDS_LABEL_CLASS_ID         500
#define IDS_LABEL_TYPE_LIBRARY     501
#define IDS_LABEL_PROG_ID          502
#define IDS_LABEL_THREADING_MODEL  503
#define IDS_LABEL_INPROC_SERVER    504
#define IDS_LABEL_LOCAL_SERVER     505
#define IDS_LABEL_REMOTE_SERVER    506
#define IDS_LABEL_VERSION          507
#define IDS_COLLECTION_OBJECT      511
#define IDS_LABEL_SERVER_LOCATION  512
#define IDS_TYPE_NAME_FIRST        1000 /* 1000-1022: names of the master type table */
#define IDS_TYPE_ENUMERATION       1023
#define IDS_TYPE_ARRAY_OF          1024
#define IDS_TYPE_STRUCT            1025
#define IDS_NO_TYPE_LIBRARY        2000
#define IDS_ILLEGAL_ENUM_VALUE     2002
#define IDS_PARAM_VALIDATION_ERROR 2003
#define IDS_HANDLER_SHORT_NAME     3000

#define IDI_HANDLER_ICON           102 /* not shipped; the info record copes without it */
