/*
 * verbs.h - the APPC verb records exchanged between libcpic and the node.
 *
 * Offsets are in bytes, integers in host byte order.  Every record of a
 * conversation verb fits in the 208-byte verb area of a conversation record;
 * bytes a record does not name are zero when it is submitted.  Return codes are
 * the byte-swapped forms of the SNA values (primary 0x0900 is the bytes 00 09).
 */
#ifndef SNANODE_VERBS_H
#define SNANODE_VERBS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define SNANODE_STATIC_ASSERT(expr, msg) static_assert(expr, msg)
extern "C" {
#else
#define SNANODE_STATIC_ASSERT(expr, msg) _Static_assert(expr, msg)
#endif

#define NAP_VCB_SIZE 208u

/* ---- opcodes -------------------------------------------------------------- */
#define NAP_B_ALLOCATE 0x0001u /* basic and mapped share the opcode; opext tells */
#define NAP_M_ALLOCATE 0x0001u
#define NAP_CONFIRM 0x0003u
#define NAP_CONFIRMED 0x0004u
#define NAP_DEALLOCATE 0x0005u
#define NAP_FLUSH 0x0006u
#define NAP_GET_STATE 0x0009u
#define NAP_PREPARE_TO_RECEIVE 0x000Au
#define NAP_RECEIVE_AND_WAIT 0x000Bu
#define NAP_RECEIVE_IMMEDIATE 0x000Cu
#define NAP_REQUEST_TO_SEND 0x000Eu
#define NAP_SEND_DATA 0x000Fu
#define NAP_SEND_ERROR 0x0010u
#define NAP_TEST_RTS 0x0012u
#define NAP_TP_ENDED 0x0013u
#define NAP_START_TP 0x0014u
#define NAP_CANCEL 0x0072u
#define NAP_RECEIVE_ALLOCATE_CPIC 0xF100u
#define NAP_DEFINE_LOCAL_TP 0xF101u
#define NAP_DELETE_LOCAL_TP 0xF102u

#define NAP_OPEXT_BASIC 0u
#define NAP_OPEXT_MAPPED 1u

/* ---- answers of appc_c_async_version -------------------------------------- */
#define AP_ASYNC_IN_PROGRESS 0x17F0u
#define AP_ASYNC_COMPLETED 0x18F0u

/* ---- primary return codes ------------------------------------------------- */
#define AP_OK 0x0000u
#define AP_PARAMETER_CHECK 0x0100u
#define AP_STATE_CHECK 0x0200u
#define AP_ALLOCATION_ERROR 0x0300u
#define AP_DEALLOC_ABEND 0x0500u
#define AP_DEALLOC_ABEND_PROG 0x0600u
#define AP_DEALLOC_ABEND_SVC 0x0700u
#define AP_DEALLOC_ABEND_TIMER 0x0800u
#define AP_DEALLOC_NORMAL 0x0900u
#define AP_PROG_ERROR_NO_TRUNC 0x0C00u
#define AP_PROG_ERROR_TRUNC 0x0D00u
#define AP_PROG_ERROR_PURGING 0x0E00u
#define AP_CONV_FAILURE_RETRY 0x0F00u
#define AP_CONV_FAILURE_NO_RETRY 0x1000u
#define AP_SVC_ERROR_NO_TRUNC 0x1100u
#define AP_SVC_ERROR_TRUNC 0x1200u
#define AP_SVC_ERROR_PURGING 0x1300u
#define AP_UNSUCCESSFUL 0x1400u
#define AP_CANCELLED 0x2100u
#define AP_UNEXPECTED_SYSTEM_ERROR 0x02F0u
#define AP_COMM_SUBSYSTEM_NOT_LOADED 0x03F0u /* node not reachable */
#define AP_COMM_SUBSYSTEM_ABENDED 0x04F0u
#define AP_NO_MEMORY 0x11F0u

/* ---- secondary return codes ----------------------------------------------- */
#define AP_BAD_FIELD 0x31000000u          /* parameter check: length, LL, type */
#define AP_BAD_TP_ID 0xF1000000u          /* parameter check */
#define AP_BAD_CONV_ID 0x5B010000u        /* parameter check */
#define AP_UNKNOWN_PARTNER_LU 0x17000000u /* parameter check */
#define AP_BAD_MODE_NAME 0x18000000u      /* parameter check */
#define AP_ALLOCATION_FAILURE_NO_RETRY 0x04000000u
#define AP_ALLOCATION_FAILURE_RETRY 0x05000000u
#define AP_CONV_TYPE_MISMATCH 0x34600810u
#define AP_PIP_NOT_SPECIFIED 0x31600810u
#define AP_SECURITY_NOT_VALID 0x51600F08u
#define AP_SYNC_LEVEL_NOT_SUPPORTED 0x41600810u
#define AP_TP_NAME_NOT_RECOGNIZED 0x21600810u
#define AP_TP_NOT_AVAILABLE_NO_RETRY 0x00004C08u
#define AP_TP_NOT_AVAILABLE_RETRY 0x31604B08u
#define AP_NO_SIDE_INFO_ENTRY 0x58100000u /* NOF: no such symbolic destination */

/* ---- node conversation states (GET_STATE) -------------------------------- */
#define AP_STATE_RESET 0u
#define AP_STATE_SEND 1u
#define AP_STATE_RECEIVE 2u
#define AP_STATE_CONFIRM 3u
#define AP_STATE_CONFIRM_SEND 4u
#define AP_STATE_CONFIRM_DEALLOCATE 5u
#define AP_STATE_SEND_PENDING 9u

/* ---- what_received of RECEIVE ---------------------------------------------- */
#define AP_WR_DATA 0x0100u          /* fill buffer: data, record boundaries not kept */
#define AP_WR_DATA_COMPLETE 0x0200u /* a whole record (or its last part) */
#define AP_WR_DATA_INCOMPLETE 0x0400u
#define AP_WR_SEND 0x0001u
#define AP_WR_CONFIRM 0x0002u
#define AP_WR_CONFIRM_SEND 0x0003u
#define AP_WR_CONFIRM_DEALLOCATE 0x0004u

/* ---- send_data_type of SEND_DATA ------------------------------------------ */
#define AP_SEND_BUFFER 0u
#define AP_SEND_FLUSH 1u
#define AP_SEND_CONFIRM 2u
#define AP_SEND_PTR_FLUSH 3u
#define AP_SEND_PTR_SYNC_LEVEL 4u
#define AP_SEND_DEALLOC_FLUSH 5u
#define AP_SEND_DEALLOC_SYNC_LEVEL 6u
#define AP_SEND_DEALLOC_ABEND 7u

/* ---- dealloc_type of DEALLOCATE -------------------------------------------- */
#define AP_DEALLOC_SYNC_LEVEL 0u
#define AP_DEALLOC_FLUSH 1u
#define AP_DEALLOC_ABEND_LOG 2u /* basic, with log data */
#define AP_DEALLOC_ABEND_MAPPED 5u

/* ---- records ------------------------------------------------------------------ */

/* Common header of every conversation verb. */
typedef struct {
  uint16_t opcode;       /* 0 */
  uint8_t opext;         /* 2: 0 basic, 1 mapped */
  uint8_t format;        /* 3: 1 in ALLOCATE and RECEIVE_ALLOCATE, else 0 */
  uint16_t primary_rc;   /* 4 */
  uint8_t reserv6[2];    /* 6 */
  uint32_t secondary_rc; /* 8 */
  uint8_t tp_id[8];      /* 12 */
  uint32_t conv_id;      /* 20 */
} NAP_HDR;               /* 24 bytes */

typedef struct { /* opcode 1 */
  NAP_HDR hdr;
  uint8_t reserv24;            /* 24: 0 */
  uint8_t sync_level;          /* 25 */
  uint8_t reserv26[2];         /* 26 */
  uint8_t return_control;      /* 28 */
  uint8_t reserv29[11];        /* 29 */
  uint8_t partner_lu_alias[8]; /* 40: ASCII alias, when unqualified */
  uint8_t mode_name[8];        /* 48: EBCDIC */
  uint8_t tp_name[64];         /* 56: EBCDIC */
  uint8_t security_type;       /* 120: CPI-C security type */
  uint8_t reserv121[11];       /* 121 */
  uint8_t password[10];        /* 132: EBCDIC */
  uint8_t user_id[10];         /* 142: EBCDIC */
  uint16_t reserv152;          /* 152: 0 */
  uint8_t reserv154[15];       /* 154 */
  uint8_t partner_lu_name[17]; /* 169: EBCDIC NETID.LUNAME, when qualified */
  uint8_t reserv186[22];       /* 186 */
} NAP_ALLOCATE;

typedef struct {            /* opcode 20; no common header */
  uint16_t opcode;          /* 0 */
  uint8_t reserv2[2];       /* 2 */
  uint16_t primary_rc;      /* 4 */
  uint8_t reserv6[2];       /* 6 */
  uint32_t secondary_rc;    /* 8 */
  uint8_t local_lu_name[8]; /* 12: ASCII; the node may fill it in */
  uint8_t tp_id[8];         /* 20: out */
  uint8_t tp_name[64];      /* 28: EBCDIC */
  uint8_t reserv92[116];    /* 92 */
} NAP_START_TP_VCB;

typedef struct {         /* opcode 19; no common header */
  uint16_t opcode;       /* 0 */
  uint8_t reserv2[2];    /* 2 */
  uint16_t primary_rc;   /* 4 */
  uint8_t reserv6[2];    /* 6 */
  uint32_t secondary_rc; /* 8 */
  uint8_t tp_id[8];      /* 12 */
  uint8_t type;          /* 20: 1 hard, 0 soft */
  uint8_t reserv21[187]; /* 21 */
} NAP_TP_ENDED_VCB;

typedef struct {                   /* opcode 0xF100 */
  uint16_t opcode;                 /* 0 */
  uint8_t opext;                   /* 2 */
  uint8_t format;                  /* 3: 1 */
  uint16_t primary_rc;             /* 4 */
  uint8_t reserv6[2];              /* 6 */
  uint32_t secondary_rc;           /* 8 */
  uint8_t rcv_tp_name[64];         /* 12: out, EBCDIC */
  uint8_t tp_id[8];                /* 76: out */
  uint32_t conv_id;                /* 84: in: library handle; out: node id */
  uint8_t rcv_sync_level;          /* 88: out */
  uint8_t rcv_conv_type;           /* 89: out, 0 basic, 1 mapped */
  uint8_t rcv_user_id[10];         /* 90: out, EBCDIC, 0x40 padded */
  uint8_t rcv_lu_alias[8];         /* 100: out, ASCII, 0x20 padded */
  uint8_t reserv108[8];            /* 108 */
  uint8_t rcv_mode_name[8];        /* 116: out, EBCDIC */
  uint8_t reserv124[8];            /* 124 */
  uint8_t rcv_partner_lu_name[17]; /* 132: out, EBCDIC, period 0x4B */
  uint8_t reserv149[43];           /* 149 */
  uint32_t tp_name_count;          /* 192: in */
  uint8_t reserv196[4];            /* 196 */
  uint8_t *tp_name_list;           /* 200: in, tp_name_count names of 64 bytes */
} NAP_RECEIVE_ALLOCATE;

typedef struct { /* opcode 3 */
  NAP_HDR hdr;
  uint8_t rts_received; /* 24: out */
} NAP_CONFIRM_VCB;

typedef struct { /* opcode 10 */
  NAP_HDR hdr;
  uint8_t ptr_type; /* 24: 0 sync level, 1 flush */
  uint8_t locks;    /* 25: 0 */
} NAP_PREPARE_TO_RECEIVE_VCB;

typedef struct { /* opcode 15 */
  NAP_HDR hdr;
  uint8_t rts_received;   /* 24: out */
  uint8_t reserv25;       /* 25 */
  uint16_t data_length;   /* 26 */
  uint8_t reserv28[4];    /* 28 */
  uint8_t *data_pointer;  /* 32 */
  uint8_t send_data_type; /* 40 */
} NAP_SEND_DATA_VCB;

typedef struct { /* opcode 16 */
  NAP_HDR hdr;
  uint8_t rts_received;      /* 24: out */
  uint8_t error_type;        /* 25: 0 (basic) */
  uint8_t error_direction;   /* 26: 1 send error, 0 receive error */
  uint8_t reserv27;          /* 27 */
  uint16_t log_data_length;  /* 28: basic only */
  uint8_t reserv30[2];       /* 30 */
  uint8_t *log_data_pointer; /* 32: basic only */
} NAP_SEND_ERROR_VCB;

typedef struct { /* opcode 5 */
  NAP_HDR hdr;
  uint8_t reserv24;          /* 24 */
  uint8_t dealloc_type;      /* 25 */
  uint16_t log_data_length;  /* 26 */
  uint8_t reserv28[4];       /* 28 */
  uint8_t *log_data_pointer; /* 32 */
} NAP_DEALLOCATE_VCB;

typedef struct { /* opcodes 11 and 12 */
  NAP_HDR hdr;
  uint16_t what_received; /* 24: out */
  uint8_t return_status;  /* 26: 1 = status may come with data */
  uint8_t fill;           /* 27: 1 logical record, 0 buffer */
  uint8_t rts_received;   /* 28: out */
  uint8_t reserv29;       /* 29 */
  uint16_t max_length;    /* 30 */
  uint16_t data_length;   /* 32: out */
  uint8_t reserv34[6];    /* 34 */
  uint8_t *data_pointer;  /* 40 */
} NAP_RECEIVE_VCB;

typedef struct { /* opcode 9 */
  NAP_HDR hdr;
  uint8_t conv_state; /* 24: out */
} NAP_GET_STATE_VCB;

typedef struct {         /* opcodes 0xF101 and 0xF102: 76 bytes */
  uint16_t opcode;       /* 0 */
  uint8_t reserv2[2];    /* 2 */
  uint16_t primary_rc;   /* 4 */
  uint8_t reserv6[2];    /* 6 */
  uint32_t secondary_rc; /* 8 */
  uint8_t tp_name[64];   /* 12: EBCDIC, 0x40 padded */
} NAP_LOCAL_TP_VCB;

/* ---- NOF records (side information) ---------------------------------------- */
#define NOF_OPEN_OPCODE 0xF004u
#define NOF_QUERY_SIDE_INFO_OPCODE 0x2121u
#define NOF_CLOSE_OPCODE 0xF005u
#define NOF_SIDE_INFO_DATA_SIZE 212u

typedef struct {          /* 232 bytes */
  uint16_t opcode;        /* 0 */
  uint8_t reserv2[2];     /* 2 */
  uint16_t primary_rc;    /* 4 */
  uint8_t reserv6[2];     /* 6 */
  uint32_t secondary_rc;  /* 8 */
  uint8_t format;         /* 12: 2 */
  uint8_t reserv13[211];  /* 13 */
  uint32_t target_handle; /* 224: out */
  uint8_t reserv228[4];   /* 228 */
} NOF_OPEN;

typedef struct {            /* 48 bytes */
  uint16_t opcode;          /* 0 */
  uint8_t reserv2;          /* 2 */
  uint8_t format;           /* 3: 1 */
  uint16_t primary_rc;      /* 4 */
  uint8_t reserv6[2];       /* 6 */
  uint32_t secondary_rc;    /* 8 */
  uint8_t reserv12[4];      /* 12 */
  uint8_t *buf_ptr;         /* 16 */
  uint32_t buf_size;        /* 24: 212 */
  uint8_t reserv28[4];      /* 28 */
  uint16_t num_entries;     /* 32: 1 */
  uint8_t reserv34[2];      /* 34 */
  uint8_t list_options;     /* 36: 4 */
  uint8_t reserv37;         /* 37 */
  uint8_t sym_dest_name[8]; /* 38 */
  uint8_t reserv46[2];      /* 46 */
} NOF_QUERY_SIDE_INFO;

typedef struct {         /* 12 bytes */
  uint16_t opcode;       /* 0 */
  uint8_t reserv2[2];    /* 2 */
  uint16_t primary_rc;   /* 4 */
  uint8_t reserv6[2];    /* 6 */
  uint32_t secondary_rc; /* 8 */
} NOF_CLOSE;

typedef struct {                       /* 212 bytes, ASCII names, blank padded */
  uint16_t overlay_size;               /* 0 */
  uint8_t sym_dest_name[8];            /* 2 */
  uint8_t description[50];             /* 10 */
  uint8_t partner_lu_name[17];         /* 60: alias or NETID.LUNAME */
  uint8_t reserv77[3];                 /* 77 */
  uint32_t tp_name_type;               /* 80 */
  uint8_t tp_name[64];                 /* 84 */
  uint8_t mode_name[8];                /* 148 */
  uint32_t conversation_security_type; /* 156 */
  uint8_t security_user_id[10];        /* 160 */
  uint8_t security_password[10];       /* 170 */
  uint8_t lu_alias[8];                 /* 180 */
  uint8_t reserv188[24];               /* 188 */
} NOF_SIDE_INFO_DATA;

/* ---- layout checks ------------------------------------------------------------- */
#define SNANODE_CHECK_OFFSET(type, field, off) \
  SNANODE_STATIC_ASSERT(offsetof(type, field) == (off), #type "." #field)
SNANODE_STATIC_ASSERT(sizeof(NAP_HDR) == 24, "NAP_HDR");
SNANODE_CHECK_OFFSET(NAP_HDR, tp_id, 12);
SNANODE_CHECK_OFFSET(NAP_HDR, conv_id, 20);
SNANODE_CHECK_OFFSET(NAP_ALLOCATE, sync_level, 25);
SNANODE_CHECK_OFFSET(NAP_ALLOCATE, return_control, 28);
SNANODE_CHECK_OFFSET(NAP_ALLOCATE, partner_lu_alias, 40);
SNANODE_CHECK_OFFSET(NAP_ALLOCATE, mode_name, 48);
SNANODE_CHECK_OFFSET(NAP_ALLOCATE, tp_name, 56);
SNANODE_CHECK_OFFSET(NAP_ALLOCATE, security_type, 120);
SNANODE_CHECK_OFFSET(NAP_ALLOCATE, password, 132);
SNANODE_CHECK_OFFSET(NAP_ALLOCATE, user_id, 142);
SNANODE_CHECK_OFFSET(NAP_ALLOCATE, reserv152, 152);
SNANODE_CHECK_OFFSET(NAP_ALLOCATE, partner_lu_name, 169);
SNANODE_STATIC_ASSERT(sizeof(NAP_ALLOCATE) == NAP_VCB_SIZE, "NAP_ALLOCATE");
SNANODE_CHECK_OFFSET(NAP_START_TP_VCB, local_lu_name, 12);
SNANODE_CHECK_OFFSET(NAP_START_TP_VCB, tp_id, 20);
SNANODE_CHECK_OFFSET(NAP_START_TP_VCB, tp_name, 28);
SNANODE_STATIC_ASSERT(sizeof(NAP_START_TP_VCB) == NAP_VCB_SIZE, "NAP_START_TP_VCB");
SNANODE_CHECK_OFFSET(NAP_TP_ENDED_VCB, tp_id, 12);
SNANODE_CHECK_OFFSET(NAP_TP_ENDED_VCB, type, 20);
SNANODE_STATIC_ASSERT(sizeof(NAP_TP_ENDED_VCB) == NAP_VCB_SIZE, "NAP_TP_ENDED_VCB");
SNANODE_CHECK_OFFSET(NAP_RECEIVE_ALLOCATE, rcv_tp_name, 12);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_ALLOCATE, tp_id, 76);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_ALLOCATE, conv_id, 84);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_ALLOCATE, rcv_sync_level, 88);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_ALLOCATE, rcv_conv_type, 89);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_ALLOCATE, rcv_user_id, 90);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_ALLOCATE, rcv_lu_alias, 100);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_ALLOCATE, rcv_mode_name, 116);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_ALLOCATE, rcv_partner_lu_name, 132);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_ALLOCATE, tp_name_count, 192);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_ALLOCATE, tp_name_list, 200);
SNANODE_STATIC_ASSERT(sizeof(NAP_RECEIVE_ALLOCATE) == NAP_VCB_SIZE, "NAP_RECEIVE_ALLOCATE");
SNANODE_CHECK_OFFSET(NAP_SEND_DATA_VCB, data_length, 26);
SNANODE_CHECK_OFFSET(NAP_SEND_DATA_VCB, data_pointer, 32);
SNANODE_CHECK_OFFSET(NAP_SEND_DATA_VCB, send_data_type, 40);
SNANODE_CHECK_OFFSET(NAP_SEND_ERROR_VCB, error_type, 25);
SNANODE_CHECK_OFFSET(NAP_SEND_ERROR_VCB, error_direction, 26);
SNANODE_CHECK_OFFSET(NAP_SEND_ERROR_VCB, log_data_length, 28);
SNANODE_CHECK_OFFSET(NAP_SEND_ERROR_VCB, log_data_pointer, 32);
SNANODE_CHECK_OFFSET(NAP_DEALLOCATE_VCB, dealloc_type, 25);
SNANODE_CHECK_OFFSET(NAP_DEALLOCATE_VCB, log_data_length, 26);
SNANODE_CHECK_OFFSET(NAP_DEALLOCATE_VCB, log_data_pointer, 32);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_VCB, what_received, 24);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_VCB, return_status, 26);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_VCB, fill, 27);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_VCB, rts_received, 28);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_VCB, max_length, 30);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_VCB, data_length, 32);
SNANODE_CHECK_OFFSET(NAP_RECEIVE_VCB, data_pointer, 40);
SNANODE_CHECK_OFFSET(NAP_GET_STATE_VCB, conv_state, 24);
SNANODE_CHECK_OFFSET(NAP_LOCAL_TP_VCB, tp_name, 12);
SNANODE_STATIC_ASSERT(sizeof(NAP_LOCAL_TP_VCB) == 76, "NAP_LOCAL_TP_VCB");
SNANODE_CHECK_OFFSET(NOF_OPEN, format, 12);
SNANODE_CHECK_OFFSET(NOF_OPEN, target_handle, 224);
SNANODE_STATIC_ASSERT(sizeof(NOF_OPEN) == 232, "NOF_OPEN");
SNANODE_CHECK_OFFSET(NOF_QUERY_SIDE_INFO, format, 3);
SNANODE_CHECK_OFFSET(NOF_QUERY_SIDE_INFO, buf_ptr, 16);
SNANODE_CHECK_OFFSET(NOF_QUERY_SIDE_INFO, buf_size, 24);
SNANODE_CHECK_OFFSET(NOF_QUERY_SIDE_INFO, num_entries, 32);
SNANODE_CHECK_OFFSET(NOF_QUERY_SIDE_INFO, list_options, 36);
SNANODE_CHECK_OFFSET(NOF_QUERY_SIDE_INFO, sym_dest_name, 38);
SNANODE_STATIC_ASSERT(sizeof(NOF_QUERY_SIDE_INFO) == 48, "NOF_QUERY_SIDE_INFO");
SNANODE_STATIC_ASSERT(sizeof(NOF_CLOSE) == 12, "NOF_CLOSE");
SNANODE_CHECK_OFFSET(NOF_SIDE_INFO_DATA, sym_dest_name, 2);
SNANODE_CHECK_OFFSET(NOF_SIDE_INFO_DATA, partner_lu_name, 60);
SNANODE_CHECK_OFFSET(NOF_SIDE_INFO_DATA, tp_name_type, 80);
SNANODE_CHECK_OFFSET(NOF_SIDE_INFO_DATA, tp_name, 84);
SNANODE_CHECK_OFFSET(NOF_SIDE_INFO_DATA, mode_name, 148);
SNANODE_CHECK_OFFSET(NOF_SIDE_INFO_DATA, conversation_security_type, 156);
SNANODE_CHECK_OFFSET(NOF_SIDE_INFO_DATA, security_user_id, 160);
SNANODE_CHECK_OFFSET(NOF_SIDE_INFO_DATA, security_password, 170);
SNANODE_CHECK_OFFSET(NOF_SIDE_INFO_DATA, lu_alias, 180);
SNANODE_STATIC_ASSERT(sizeof(NOF_SIDE_INFO_DATA) == NOF_SIDE_INFO_DATA_SIZE, "NOF_SIDE_INFO_DATA");
#undef SNANODE_CHECK_OFFSET

#ifdef __cplusplus
}
#endif

#endif /* SNANODE_VERBS_H */
