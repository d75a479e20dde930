/*
 * A disk of our own under the kernel's real SCSI layer: it answers what the kernel's target for
 * programs (target_core_user) hands over. So /dev/sdX, SG_IO, unplugging and scanning are the
 * kernel's, and the temperature and the power mode are ours.
 *
 *   scsi_disk /dev/uioN FOLDER
 *
 * FOLDER has files of one line. They are read at every command:
 *   temperature  degrees Celsius; without the file the disk has no such attribute
 *   power        "active", "standby", or "silent": knows no ATA command, as many memory sticks
 *   model, serial
 * FOLDER/log gets a line for each command that is no housekeeping of the kernel's: "identify",
 * "smart data", "smart on", "power mode", "data" (blocks read or written), and "woken" after the
 * first that makes a sleeping disk turn.
 */
#include <fcntl.h>
#include <linux/target_core_user.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

enum { BLOCK = 512, BLOCKS = 131072, ANSWER_MAX = BLOCK, LINE_MAX_ = 64 };

/* SCSI status, sense keys and additional sense codes. */
enum { GOOD = 0, CHECK_CONDITION = 2 };
enum { RECOVERED = 1, ILLEGAL_REQUEST = 5, ABORTED = 0x0B };
enum { INVALID_COMMAND = 0x20, INVALID_FIELD = 0x24 };

enum {
  TEST_UNIT_READY = 0x00,
  INQUIRY = 0x12,
  MODE_SENSE_6 = 0x1A,
  START_STOP = 0x1B,
  READ_CAPACITY_10 = 0x25,
  READ_10 = 0x28,
  WRITE_10 = 0x2A,
  SYNCHRONIZE_CACHE = 0x35,
  ATA_PASS_THROUGH_16 = 0x85,
  READ_16 = 0x88,
  WRITE_16 = 0x8A,
  SERVICE_ACTION_IN_16 = 0x9E,
};

/* What a command is answered with. Data behind `size` is zero. */
struct answer {
  uint8_t status;
  uint8_t sense[TCMU_SENSE_BUFFERSIZE];
  uint8_t data[ANSWER_MAX];
};

static const char *folder;

static void read_line(const char *name, char line[LINE_MAX_]) {
  char path[256];
  (void)snprintf(path, sizeof path, "%s/%s", folder, name);
  line[0] = '\0';
  FILE *file = fopen(path, "r");
  if (file == NULL) return;
  if (fgets(line, LINE_MAX_, file) != NULL) line[strcspn(line, "\n")] = '\0';
  (void)fclose(file);
}

static void write_line(const char *name, const char *mode, const char *line) {
  char path[256];
  (void)snprintf(path, sizeof path, "%s/%s", folder, name);
  FILE *file = fopen(path, mode);
  if (file == NULL) return;
  (void)fprintf(file, "%s\n", line);
  (void)fclose(file);
}

/* A command for which the disk has to turn, or to talk at least. */
static void log_command(const char *command, bool turns) {
  char power[LINE_MAX_];
  read_line("power", power);
  write_line("log", "a", command);
  if (!turns || strcmp(power, "standby") != 0) return;
  write_line("log", "a", "woken");
  write_line("power", "w", "active");
}

static void refuse(struct answer *answer, uint8_t key, uint8_t code) {
  answer->status = CHECK_CONDITION;
  answer->sense[0] = 0x70; /* fixed format */
  answer->sense[2] = key;
  answer->sense[7] = 10;
  answer->sense[12] = code;
}

static void put_big(uint8_t *place, uint64_t number, size_t bytes) {
  for (size_t i = bytes; i-- > 0; number >>= 8) place[i] = (uint8_t)number;
}

/* An ATA string: padded with blanks, the two characters of a word swapped. */
static void put_ata_text(uint8_t *place, size_t size, const char *text) {
  const size_t length = strlen(text);
  for (size_t i = 0; i < size; ++i) place[i ^ 1] = (uint8_t)(i < length ? text[i] : ' ');
}

static void put_padded(uint8_t *place, size_t size, const char *text) {
  const size_t length = strlen(text);
  for (size_t i = 0; i < size; ++i) place[i] = (uint8_t)(i < length ? text[i] : ' ');
}

/* --- ATA --- */

static void identify(struct answer *answer) {
  char text[LINE_MAX_];
  log_command("identify", true);
  read_line("serial", text);
  put_ata_text(answer->data + 20, 20, text);
  read_line("model", text);
  put_ata_text(answer->data + 54, 40, text);
}

static void read_smart_data(struct answer *answer) {
  char text[LINE_MAX_];
  log_command("smart data", true);
  read_line("temperature", text);
  /* Attributes of 12 bytes follow the revision: number, flags, value, worst, six bytes raw. */
  static const uint8_t hours[12] = {9, 0x32, 0, 100, 100, 194, 1, 0, 0, 0, 0, 0};
  answer->data[0] = 16;
  memcpy(answer->data + 2, hours, sizeof hours);
  if (text[0] == '\0') return;
  uint8_t *attribute = answer->data + 2 + sizeof hours;
  attribute[0] = 194;
  attribute[1] = 0x22;
  attribute[3] = attribute[4] = 100;
  attribute[5] = (uint8_t)strtol(text, NULL, 10);
}

/* The result's registers, which the caller asked for: in a descriptor (SAT). */
static void return_registers(struct answer *answer, uint8_t count) {
  answer->status = CHECK_CONDITION;
  static const uint8_t sense[22] = {0x72, RECOVERED, 0, 0x1D, 0, 0, 0, 14, 0x09, 12};
  memcpy(answer->sense, sense, sizeof sense);
  answer->sense[13] = count;
  answer->sense[21] = 0x50; /* ready, no error */
}

/* Strict: a command that a drive would refuse is refused. */
static void pass_through(const uint8_t *cdb, struct answer *answer) {
  char power[LINE_MAX_];
  read_line("power", power);
  if (strcmp(power, "silent") == 0) {
    refuse(answer, ILLEGAL_REQUEST, INVALID_COMMAND);
    return;
  }
  const int protocol = cdb[1] >> 1 & 0x0F, non_data = 3, data_in = 4;
  const bool takes_sector = protocol == data_in && (cdb[2] & 0x0F) == 0x0E && cdb[6] == 1;
  const bool has_signature = cdb[10] == 0x4F && cdb[12] == 0xC2;
  const int feature = cdb[4], command = cdb[14];
  if (command == 0xEC && takes_sector) {
    identify(answer);
  } else if (command == 0xB0 && feature == 0xD0 && takes_sector && has_signature) {
    read_smart_data(answer);
  } else if (command == 0xB0 && feature == 0xD8 && protocol == non_data && has_signature) {
    log_command("smart on", true);
  } else if (command == 0xE5 && protocol == non_data) {
    log_command("power mode", false);
    if ((cdb[2] & 0x20) != 0) return_registers(answer, strcmp(power, "standby") == 0 ? 0 : 0xFF);
  } else {
    log_command("refused", false);
    refuse(answer, ABORTED, 0);
  }
}

/* --- SCSI --- */

static void inquire(const uint8_t *cdb, struct answer *answer) {
  if ((cdb[1] & 1) != 0) { /* pages of vital product data: none */
    refuse(answer, ILLEGAL_REQUEST, INVALID_FIELD);
    return;
  }
  char model[LINE_MAX_];
  read_line("model", model);
  answer->data[2] = 5; /* SPC-3 */
  answer->data[3] = 2;
  answer->data[4] = 31;
  put_padded(answer->data + 8, 8, "ATA");
  put_padded(answer->data + 16, 16, model);
  put_padded(answer->data + 32, 4, "1.0");
}

static void obey(const uint8_t *cdb, struct answer *answer) {
  switch (cdb[0]) {
    case TEST_UNIT_READY:
    case START_STOP:
    case SYNCHRONIZE_CACHE:
      return;
    case INQUIRY:
      inquire(cdb, answer);
      return;
    case MODE_SENSE_6:
      answer->data[0] = 3;
      return;
    case READ_CAPACITY_10:
      put_big(answer->data, BLOCKS - 1, 4);
      put_big(answer->data + 4, BLOCK, 4);
      return;
    case SERVICE_ACTION_IN_16: /* read capacity */
      put_big(answer->data, BLOCKS - 1, 8);
      put_big(answer->data + 8, BLOCK, 4);
      return;
    case READ_10:
    case WRITE_10:
    case READ_16:
    case WRITE_16:
      log_command("data", true);
      return; /* all of it is zero, and stays zero */
    case ATA_PASS_THROUGH_16:
      pass_through(cdb, answer);
      return;
    default:
      refuse(answer, ILLEGAL_REQUEST, INVALID_COMMAND);
  }
}

/* --- The ring of commands that is shared with the kernel --- */

static void serve(uint8_t *shared, struct tcmu_cmd_entry *entry) {
  struct answer answer = {0};
  const uint8_t *cdb = shared + entry->req.cdb_off;
  obey(cdb, &answer);
  const bool is_write = cdb[0] == WRITE_10 || cdb[0] == WRITE_16;
  size_t used = 0;
  for (uint32_t i = 0; i < entry->req.iov_cnt && !is_write; ++i) {
    uint8_t *place = shared + (uintptr_t)entry->req.iov[i].iov_base;
    for (size_t at = 0; at < entry->req.iov[i].iov_len; ++at, ++used) {
      place[at] = used < sizeof answer.data ? answer.data[used] : 0;
    }
  }
  /* From here on: the request lies at the same place. */
  entry->rsp.scsi_status = answer.status;
  memcpy(entry->rsp.sense_buffer, answer.sense, sizeof answer.sense);
}

static void serve_all(uint8_t *shared) {
  struct tcmu_mailbox *mailbox = (void *)shared;
  const uint32_t size = mailbox->cmdr_size;
  uint32_t tail = mailbox->cmd_tail;
  while (tail != __atomic_load_n(&mailbox->cmd_head, __ATOMIC_ACQUIRE)) {
    struct tcmu_cmd_entry *entry = (void *)(shared + mailbox->cmdr_off + tail);
    const uint32_t length = tcmu_hdr_get_len(entry->hdr.len_op);
    if (tcmu_hdr_get_op(entry->hdr.len_op) == TCMU_OP_CMD) serve(shared, entry);
    tail = (tail + length) % size;
    __atomic_store_n(&mailbox->cmd_tail, tail, __ATOMIC_RELEASE);
  }
}

static size_t map_size(const char *device) {
  const char *name = strrchr(device, '/');
  char path[256];
  (void)snprintf(path, sizeof path, "/sys/class/uio/%s/maps/map0/size",
                 name == NULL ? device : name + 1);
  unsigned long size = 0;
  FILE *file = fopen(path, "r");
  if (file == NULL) return 0;
  if (fscanf(file, "%lx", &size) != 1) size = 0;
  (void)fclose(file);
  return size;
}

static int give_up(const char *what) {
  perror(what);
  return EXIT_FAILURE;
}

int main(int count, char **arguments) {
  if (count != 3) {
    (void)fputs("usage: scsi_disk /dev/uioN FOLDER\n", stderr);
    return EXIT_FAILURE;
  }
  folder = arguments[2];
  const int device = open(arguments[1], O_RDWR | O_CLOEXEC);
  if (device < 0) return give_up(arguments[1]);
  uint8_t *shared =
      mmap(NULL, map_size(arguments[1]), PROT_READ | PROT_WRITE, MAP_SHARED, device, 0);
  if (shared == MAP_FAILED) return give_up("mmap");
  for (;;) {
    int32_t events = 0;
    serve_all(shared);
    if (write(device, &events, sizeof events) != sizeof events) return give_up("write");
    if (read(device, &events, sizeof events) != sizeof events) return give_up("read");
  }
}
