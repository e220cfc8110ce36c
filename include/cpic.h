/*
 * cpic.h - CPI-C (Common Programming Interface for Communications) for C programs.
 *
 * Transaction programs include this header and link with -lcpic to hold
 * program-to-program conversations over SNA LU 6.2.  Every call exists under a
 * lower-case name (cmallc) and an upper-case name (CMALLC) that behave the same.
 * Every argument is passed by address; the last one is always the return code.
 *
 * The header is plain C99 and also compiles as C++.
 */
#ifndef CPIC_H
#define CPIC_H

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------
 * Binding conventions
 * ------------------------------------------------------------------------- */
#define CM_ENTRY extern void
#define CM_PTR *

/* 32 bits on LP64 as on ILP32. */
typedef int CM_INT32;

typedef CM_INT32 CM_CONVERSATION_RETURN_CODE;
typedef CM_INT32 CM_CONVERSATION_SECURITY_TYPE;
typedef CM_INT32 CM_CONVERSATION_STATE;
typedef CM_INT32 CM_CONVERSATION_TYPE;
typedef CM_INT32 CM_DATA_RECEIVED_TYPE;
typedef CM_INT32 CM_DEALLOCATE_TYPE;
typedef CM_INT32 CM_END_TYPE;
typedef CM_INT32 CM_ERROR_DIRECTION;
typedef CM_INT32 CM_FILL;
typedef CM_INT32 CM_PREPARE_TO_RECEIVE_TYPE;
typedef CM_INT32 CM_PROCESSING_MODE;
typedef CM_INT32 CM_RECEIVE_TYPE;
typedef CM_INT32 CM_REQUEST_TO_SEND_RECEIVED;
typedef CM_INT32 CM_RETURN_CODE;
typedef CM_INT32 CM_RETURN_CONTROL;
typedef CM_INT32 CM_SEND_TYPE;
typedef CM_INT32 CM_STATUS_RECEIVED;
typedef CM_INT32 CM_SYNC_LEVEL;
typedef CM_INT32 CM_TP_NAME_TYPE;
typedef CM_INT32 XC_CONVERSATION_SECURITY_TYPE;
typedef CM_INT32 XC_TP_NAME_TYPE;

/* ---------------------------------------------------------------------------
 * Return codes
 * ------------------------------------------------------------------------- */
#define CM_OK 0
#define CM_ALLOCATE_FAILURE_NO_RETRY 1
#define CM_ALLOCATE_FAILURE_RETRY 2
#define CM_CONVERSATION_TYPE_MISMATCH 3
#define CM_PIP_NOT_SPECIFIED_CORRECTLY 5
#define CM_SECURITY_NOT_VALID 6
#define CM_SYNC_LEVEL_NOT_SUPPORTED_LU 7
#define CM_SYNC_LEVEL_NOT_SUPPORTED_PGM 8
#define CM_TPN_NOT_RECOGNIZED 9
#define CM_TP_NOT_AVAILABLE_NO_RETRY 10
#define CM_TP_NOT_AVAILABLE_RETRY 11
#define CM_DEALLOCATED_ABEND 17
#define CM_DEALLOCATED_NORMAL 18
#define CM_PARAMETER_ERROR 19
#define CM_PRODUCT_SPECIFIC_ERROR 20
#define CM_PROGRAM_ERROR_NO_TRUNC 21
#define CM_PROGRAM_ERROR_PURGING 22
#define CM_PROGRAM_ERROR_TRUNC 23
#define CM_PROGRAM_PARAMETER_CHECK 24
#define CM_PROGRAM_STATE_CHECK 25
#define CM_RESOURCE_FAILURE_NO_RETRY 26
#define CM_RESOURCE_FAILURE_RETRY 27
#define CM_UNSUCCESSFUL 28
#define CM_DEALLOCATED_ABEND_SVC 30
#define CM_DEALLOCATED_ABEND_TIMER 31
#define CM_SVC_ERROR_NO_TRUNC 32
#define CM_SVC_ERROR_PURGING 33
#define CM_SVC_ERROR_TRUNC 34
#define CM_OPERATION_INCOMPLETE 35
#define CM_SYSTEM_EVENT 36
#define CM_OPERATION_NOT_ACCEPTED 37
#define CM_CONVERSATION_ENDING 38
#define CM_SEND_RCV_MODE_NOT_SUPPORTED 39
#define CM_BUFFER_TOO_SMALL 40
#define CM_EXP_DATA_NOT_SUPPORTED 41
#define CM_DEALLOC_CONFIRM_REJECT 42
#define CM_ALLOCATION_ERROR 43
#define CM_RETRY_LIMIT_EXCEEDED 44
#define CM_NO_SECONDARY_INFORMATION 45
#define CM_SECURITY_NOT_SUPPORTED 46
#define CM_SECURITY_MUTUAL_FAILED 47
#define CM_CALL_NOT_SUPPORTED 48
#define CM_PARM_VALUE_NOT_SUPPORTED 49
#define CM_TAKE_BACKOUT 100
#define CM_DEALLOCATED_ABEND_BO 130
#define CM_DEALLOCATED_ABEND_SVC_BO 131
#define CM_DEALLOCATED_ABEND_TIMER_BO 132
#define CM_RESOURCE_FAIL_NO_RETRY_BO 133
#define CM_RESOURCE_FAILURE_RETRY_BO 134
#define CM_DEALLOCATED_NORMAL_BO 135
#define CM_CONV_DEALLOC_AFTER_SYNCPT 136
#define CM_INCLUDE_PARTNER_REJECT_BO 137

/* ---------------------------------------------------------------------------
 * Conversation characteristics and results
 * ------------------------------------------------------------------------- */
/* conversation_type */
#define CM_BASIC_CONVERSATION 0
#define CM_MAPPED_CONVERSATION 1

/* conversation_state */
#define CM_INITIALIZE_STATE 2
#define CM_SEND_STATE 3
#define CM_RECEIVE_STATE 4
#define CM_SEND_PENDING_STATE 5
#define CM_CONFIRM_STATE 6
#define CM_CONFIRM_SEND_STATE 7
#define CM_CONFIRM_DEALLOCATE_STATE 8
#define CM_DEFER_RECEIVE_STATE 9
#define CM_DEFER_DEALLOCATE_STATE 10
#define CM_SYNC_POINT_STATE 11
#define CM_SYNC_POINT_SEND_STATE 12
#define CM_SYNC_POINT_DEALLOCATE_STATE 13
#define CM_INITIALIZE_INCOMING_STATE 14
#define CM_SEND_ONLY_STATE 15
#define CM_RECEIVE_ONLY_STATE 16
#define CM_SEND_RECEIVE_STATE 17
#define CM_PREPARED_STATE 18

/* data_received */
#define CM_NO_DATA_RECEIVED 0
#define CM_DATA_RECEIVED 1
#define CM_COMPLETE_DATA_RECEIVED 2
#define CM_INCOMPLETE_DATA_RECEIVED 3

/* deallocate_type */
#define CM_DEALLOCATE_SYNC_LEVEL 0
#define CM_DEALLOCATE_FLUSH 1
#define CM_DEALLOCATE_CONFIRM 2
#define CM_DEALLOCATE_ABEND 3

/* end_type of CMTERM */
#define CM_HARD 0
#define CM_SOFT 1

/* error_direction */
#define CM_RECEIVE_ERROR 0
#define CM_SEND_ERROR 1

/* fill */
#define CM_FILL_LL 0
#define CM_FILL_BUFFER 1

/* prepare_to_receive_type */
#define CM_PREP_TO_RECEIVE_SYNC_LEVEL 0
#define CM_PREP_TO_RECEIVE_FLUSH 1
#define CM_PREP_TO_RECEIVE_CONFIRM 2

/* processing_mode */
#define CM_BLOCKING 0
#define CM_NON_BLOCKING 1

/* receive_type */
#define CM_RECEIVE_AND_WAIT 0
#define CM_RECEIVE_IMMEDIATE 1

/* request_to_send_received */
#define CM_REQ_TO_SEND_NOT_RECEIVED 0
#define CM_REQ_TO_SEND_RECEIVED 1

/* return_control */
#define CM_WHEN_SESSION_ALLOCATED 0
#define CM_IMMEDIATE 1

/* send_type */
#define CM_BUFFER_DATA 0
#define CM_SEND_AND_FLUSH 1
#define CM_SEND_AND_CONFIRM 2
#define CM_SEND_AND_PREP_TO_RECEIVE 3
#define CM_SEND_AND_DEALLOCATE 4

/* status_received */
#define CM_NO_STATUS_RECEIVED 0
#define CM_SEND_RECEIVED 1
#define CM_CONFIRM_RECEIVED 2
#define CM_CONFIRM_SEND_RECEIVED 3
#define CM_CONFIRM_DEALLOC_RECEIVED 4
#define CM_TAKE_COMMIT 5
#define CM_TAKE_COMMIT_SEND 6
#define CM_TAKE_COMMIT_DEALLOCATE 7
#define CM_TAKE_COMMIT_DATA_OK 8
#define CM_TAKE_COMMIT_SEND_DATA_OK 9
#define CM_TAKE_COMMIT_DEALLOC_DATA_OK 10
#define CM_PREPARE_OK 11
#define CM_JOINT_TRANSACTION 12

/* sync_level */
#define CM_NONE 0
#define CM_CONFIRM 1
#define CM_SYNC_POINT 2
#define CM_SYNC_POINT_NO_CONFIRM 3

/* conversation_security_type (both spellings are in use) */
#define CM_SECURITY_NONE 0
#define CM_SECURITY_SAME 1
#define CM_SECURITY_PROGRAM 2
#define CM_SECURITY_DISTRIBUTED 3
#define CM_SECURITY_MUTUAL 4
#define CM_SECURITY_PROGRAM_STRONG 5
#define XC_SECURITY_NONE CM_SECURITY_NONE
#define XC_SECURITY_SAME CM_SECURITY_SAME
#define XC_SECURITY_PROGRAM CM_SECURITY_PROGRAM
#define XC_SECURITY_DISTRIBUTED CM_SECURITY_DISTRIBUTED
#define XC_SECURITY_MUTUAL CM_SECURITY_MUTUAL
#define XC_SECURITY_PROGRAM_STRONG CM_SECURITY_PROGRAM_STRONG

/* TP_name_type of a side information entry */
#define CM_APPLICATION_TP 0
#define CM_SNA_SERVICE_TP 1
#define XC_APPLICATION_TP CM_APPLICATION_TP
#define XC_SNA_SERVICE_TP CM_SNA_SERVICE_TP

/* Largest buffer CMSEND and CMRCV accept (CMEMBS reports it). */
#define CM_MAXIMUM_BUFFER_SIZE 32767

/* ---------------------------------------------------------------------------
 * Side information entry of XCMSSI and XCMESI: 124 bytes, ASCII names,
 * fixed-length fields padded with blanks.
 * ------------------------------------------------------------------------- */
struct side_info_entry {
  unsigned char sym_dest_name[8];
  unsigned char partner_LU_name[17];
  unsigned char reserved[3];
  XC_TP_NAME_TYPE TP_name_type;
  unsigned char TP_name[64];
  unsigned char mode_name[8];
  XC_CONVERSATION_SECURITY_TYPE conversation_security_type;
  unsigned char security_user_ID[8];
  unsigned char security_password[8];
};
typedef struct side_info_entry SIDE_INFO;

/* ---------------------------------------------------------------------------
 * Calls.  A conversation ID is 8 bytes, opaque to the program.
 * ------------------------------------------------------------------------- */
/* Starting, accepting and ending conversations */
CM_ENTRY cminit(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR sym_dest_name,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmallc(unsigned char CM_PTR conversation_ID, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmaccp(unsigned char CM_PTR conversation_ID, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cminic(unsigned char CM_PTR conversation_ID, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmacci(unsigned char CM_PTR conversation_ID, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmdeal(unsigned char CM_PTR conversation_ID, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmterm(CM_END_TYPE CM_PTR end_type, CM_RETURN_CODE CM_PTR return_code);

/* Sending and controlling */
CM_ENTRY cmsend(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR buffer,
                CM_INT32 CM_PTR send_length,
                CM_REQUEST_TO_SEND_RECEIVED CM_PTR request_to_send_received,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmflus(unsigned char CM_PTR conversation_ID, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmptr(unsigned char CM_PTR conversation_ID, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmcfm(unsigned char CM_PTR conversation_ID,
               CM_REQUEST_TO_SEND_RECEIVED CM_PTR request_to_send_received,
               CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmcfmd(unsigned char CM_PTR conversation_ID, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmserr(unsigned char CM_PTR conversation_ID,
                CM_REQUEST_TO_SEND_RECEIVED CM_PTR request_to_send_received,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmrts(unsigned char CM_PTR conversation_ID, CM_RETURN_CODE CM_PTR return_code);

/* Receiving */
CM_ENTRY cmrcv(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR buffer,
               CM_INT32 CM_PTR requested_length, CM_DATA_RECEIVED_TYPE CM_PTR data_received,
               CM_INT32 CM_PTR received_length, CM_STATUS_RECEIVED CM_PTR status_received,
               CM_REQUEST_TO_SEND_RECEIVED CM_PTR request_to_send_received,
               CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmtrts(unsigned char CM_PTR conversation_ID,
                CM_REQUEST_TO_SEND_RECEIVED CM_PTR request_to_send_received,
                CM_RETURN_CODE CM_PTR return_code);

/* State, waiting, cancelling */
CM_ENTRY cmecs(unsigned char CM_PTR conversation_ID,
               CM_CONVERSATION_STATE CM_PTR conversation_state, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmwait(unsigned char CM_PTR conversation_ID,
                CM_RETURN_CODE CM_PTR conversation_return_code, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmchck(unsigned char CM_PTR conversation_ID, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmcanc(unsigned char CM_PTR conversation_ID, CM_RETURN_CODE CM_PTR return_code);

/* Setting characteristics */
CM_ENTRY cmsct(unsigned char CM_PTR conversation_ID, CM_CONVERSATION_TYPE CM_PTR conversation_type,
               CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmsdt(unsigned char CM_PTR conversation_ID, CM_DEALLOCATE_TYPE CM_PTR deallocate_type,
               CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmsed(unsigned char CM_PTR conversation_ID, CM_ERROR_DIRECTION CM_PTR error_direction,
               CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmsf(unsigned char CM_PTR conversation_ID, CM_FILL CM_PTR fill,
              CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmsld(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR log_data,
               CM_INT32 CM_PTR log_data_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmslln(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR local_LU_name,
                CM_INT32 CM_PTR local_LU_name_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmsmn(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR mode_name,
               CM_INT32 CM_PTR mode_name_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmspln(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR partner_LU_name,
                CM_INT32 CM_PTR partner_LU_name_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmsptr(unsigned char CM_PTR conversation_ID,
                CM_PREPARE_TO_RECEIVE_TYPE CM_PTR prepare_to_receive_type,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmsrt(unsigned char CM_PTR conversation_ID, CM_RECEIVE_TYPE CM_PTR receive_type,
               CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmsrc(unsigned char CM_PTR conversation_ID, CM_RETURN_CONTROL CM_PTR return_control,
               CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmsst(unsigned char CM_PTR conversation_ID, CM_SEND_TYPE CM_PTR send_type,
               CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmssl(unsigned char CM_PTR conversation_ID, CM_SYNC_LEVEL CM_PTR sync_level,
               CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmstpn(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR TP_name,
                CM_INT32 CM_PTR TP_name_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmspm(unsigned char CM_PTR conversation_ID, CM_PROCESSING_MODE CM_PTR processing_mode,
               CM_RETURN_CODE CM_PTR return_code);

/* Extracting characteristics */
CM_ENTRY cmect(unsigned char CM_PTR conversation_ID, CM_CONVERSATION_TYPE CM_PTR conversation_type,
               CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmemn(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR mode_name,
               CM_INT32 CM_PTR mode_name_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmepln(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR partner_LU_name,
                CM_INT32 CM_PTR partner_LU_name_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmelln(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR local_LU_name,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmesl(unsigned char CM_PTR conversation_ID, CM_SYNC_LEVEL CM_PTR sync_level,
               CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmetpn(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR TP_name,
                CM_INT32 CM_PTR TP_name_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmembs(CM_INT32 CM_PTR maximum_buffer_size, CM_RETURN_CODE CM_PTR return_code);

/* Conversation security */
CM_ENTRY xcscst(unsigned char CM_PTR conversation_ID,
                XC_CONVERSATION_SECURITY_TYPE CM_PTR conversation_security_type,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmscst(unsigned char CM_PTR conversation_ID,
                CM_CONVERSATION_SECURITY_TYPE CM_PTR conversation_security_type,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY xcscsu(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR security_user_ID,
                CM_INT32 CM_PTR security_user_ID_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmscsu(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR security_user_ID,
                CM_INT32 CM_PTR security_user_ID_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY xcscsp(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR security_password,
                CM_INT32 CM_PTR security_password_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmscsp(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR security_password,
                CM_INT32 CM_PTR security_password_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY xcecst(unsigned char CM_PTR conversation_ID,
                XC_CONVERSATION_SECURITY_TYPE CM_PTR conversation_security_type,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmecst(unsigned char CM_PTR conversation_ID,
                CM_CONVERSATION_SECURITY_TYPE CM_PTR conversation_security_type,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY xcecsu(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR security_user_ID,
                CM_INT32 CM_PTR security_user_ID_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmecsu(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR security_user_ID,
                CM_INT32 CM_PTR security_user_ID_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmesui(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR security_user_ID,
                CM_INT32 CM_PTR security_user_ID_length, CM_RETURN_CODE CM_PTR return_code);

/* Local TP names and contexts */
CM_ENTRY cmsltp(unsigned char CM_PTR TP_name, CM_INT32 CM_PTR TP_name_length,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmrltp(unsigned char CM_PTR TP_name, CM_INT32 CM_PTR TP_name_length,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmectx(unsigned char CM_PTR conversation_ID, unsigned char CM_PTR context_ID,
                CM_INT32 CM_PTR context_ID_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmsctx(unsigned char CM_PTR context_ID, CM_INT32 CM_PTR context_ID_length,
                CM_RETURN_CODE CM_PTR return_code);

/* Side information of this process */
CM_ENTRY xcmssi(unsigned char CM_PTR key, SIDE_INFO CM_PTR side_info_entry,
                CM_INT32 CM_PTR side_info_entry_length, CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY xcmesi(CM_INT32 CM_PTR entry_number, unsigned char CM_PTR sym_dest_name,
                SIDE_INFO CM_PTR side_info_entry, CM_INT32 CM_PTR side_info_entry_length,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY xcmdsi(unsigned char CM_PTR key, unsigned char CM_PTR sym_dest_name,
                CM_RETURN_CODE CM_PTR return_code);

/* Character conversion of application data, in place */
CM_ENTRY cmcnvo(unsigned char CM_PTR buffer, CM_INT32 CM_PTR length,
                CM_RETURN_CODE CM_PTR return_code);
CM_ENTRY cmcnvi(unsigned char CM_PTR buffer, CM_INT32 CM_PTR length,
                CM_RETURN_CODE CM_PTR return_code);

/* Upper-case names */
CM_ENTRY CMINIT(unsigned char CM_PTR, unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMALLC(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMACCP(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMINIC(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMACCI(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMDEAL(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMTERM(CM_END_TYPE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSEND(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR,
                CM_REQUEST_TO_SEND_RECEIVED CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMFLUS(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMPTR(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMCFM(unsigned char CM_PTR, CM_REQUEST_TO_SEND_RECEIVED CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMCFMD(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSERR(unsigned char CM_PTR, CM_REQUEST_TO_SEND_RECEIVED CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMRTS(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMRCV(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR,
               CM_DATA_RECEIVED_TYPE CM_PTR, CM_INT32 CM_PTR, CM_STATUS_RECEIVED CM_PTR,
               CM_REQUEST_TO_SEND_RECEIVED CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMTRTS(unsigned char CM_PTR, CM_REQUEST_TO_SEND_RECEIVED CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMECS(unsigned char CM_PTR, CM_CONVERSATION_STATE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMWAIT(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMCHCK(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMCANC(unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSCT(unsigned char CM_PTR, CM_CONVERSATION_TYPE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSDT(unsigned char CM_PTR, CM_DEALLOCATE_TYPE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSED(unsigned char CM_PTR, CM_ERROR_DIRECTION CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSF(unsigned char CM_PTR, CM_FILL CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSLD(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSLLN(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSMN(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSPLN(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSPTR(unsigned char CM_PTR, CM_PREPARE_TO_RECEIVE_TYPE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSRT(unsigned char CM_PTR, CM_RECEIVE_TYPE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSRC(unsigned char CM_PTR, CM_RETURN_CONTROL CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSST(unsigned char CM_PTR, CM_SEND_TYPE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSSL(unsigned char CM_PTR, CM_SYNC_LEVEL CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSTPN(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSPM(unsigned char CM_PTR, CM_PROCESSING_MODE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMECT(unsigned char CM_PTR, CM_CONVERSATION_TYPE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMEMN(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMEPLN(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMELLN(unsigned char CM_PTR, unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMESL(unsigned char CM_PTR, CM_SYNC_LEVEL CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMETPN(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMEMBS(CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY XCSCST(unsigned char CM_PTR, XC_CONVERSATION_SECURITY_TYPE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSCST(unsigned char CM_PTR, CM_CONVERSATION_SECURITY_TYPE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY XCSCSU(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSCSU(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY XCSCSP(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSCSP(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY XCECST(unsigned char CM_PTR, XC_CONVERSATION_SECURITY_TYPE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMECST(unsigned char CM_PTR, CM_CONVERSATION_SECURITY_TYPE CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY XCECSU(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMECSU(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMESUI(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSLTP(unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMRLTP(unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMECTX(unsigned char CM_PTR, unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMSCTX(unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY XCMSSI(unsigned char CM_PTR, SIDE_INFO CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY XCMESI(CM_INT32 CM_PTR, unsigned char CM_PTR, SIDE_INFO CM_PTR, CM_INT32 CM_PTR,
                CM_RETURN_CODE CM_PTR);
CM_ENTRY XCMDSI(unsigned char CM_PTR, unsigned char CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMCNVO(unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);
CM_ENTRY CMCNVI(unsigned char CM_PTR, CM_INT32 CM_PTR, CM_RETURN_CODE CM_PTR);

/* ---------------------------------------------------------------------------
 * Exported data
 * ------------------------------------------------------------------------- */
/* ASCII/EBCDIC conversion tables, 512 bytes each: bytes 0-255 map an ASCII
 * (ISO 8859-1) byte to EBCDIC, bytes 256-511 map back; 0x00 marks a character
 * outside the table's set.  Writable: a change takes effect on the next
 * conversion. */
extern unsigned char cpic_a[512];        /* A-Z 0-9 space # $ @, lower case folded */
extern unsigned char cpic_ae[512];       /* A-Z a-z 0-9 space . # $ @ */
extern unsigned char cpic_ae640[512];    /* the above plus the character set 00640 */
extern unsigned char cpic_ae640_ex[512]; /* printable ASCII and three ISO 8859-1 signs */

/* Version texts of the library. */
extern char ocpic_verstring[255];
extern char ocpic_verstring1[255];
extern char ocpic_verstring1_tvt[255];
extern char ocpic_dummy[512];
char *ocpic_verstamp(void);
char *ocpic_verstamp_tvt(void);

/* 1 once the library has started (first CMINIT, accept, CMSLTP or side
 * information call), 0 before that and after the node went away. */
extern unsigned short fInitCPIC;

#ifdef __cplusplus
}
#endif

#endif /* CPIC_H */
