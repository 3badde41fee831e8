/* tape-fix1.h - what the emulated tape of tgtd 1.0.85 must do better for this lab.
 *
 * build includes this file in tgtd's tape backing store (bs_ssc.c) just before its
 * request function, and tape-fix2.h just after it.  The functions here take the place
 * of the ones of the same purpose there, by #define.  What they put right, as SCSI's
 * stream commands want it and as real drives do:
 *   - a read at the end of the data is a BLANK CHECK and transfers nothing (before:
 *     "end of medium" without a residue, which Linux takes for a whole block read);
 *   - a block shorter than the request arrives whole (before: only request - block
 *     bytes of it, so a block longer than half of the request was cut);
 *   - spacing stops with a residue at the end of the data, at the beginning of the
 *     tape and, when spacing blocks, at a filemark (before: no residue, marks ignored);
 *   - the tape has a hard end 512 KiB behind the early warning (before: none);
 *   - READ POSITION tells the block number (before: always 0).
 */

#define TAPE_EOM_BIT   0x40
#define TAPE_ILI_BIT   0x20
#define TAPE_FM_BIT    0x80
#define TAPE_SLACK     (512 * 1024)

/* fixed-format sense data with a signed residue in the information field */
static int tape_check(struct scsi_cmd *cmd, uint8_t key, uint16_t asc, int32_t residue)
{
	sense_data_build(cmd, key, asc);
	cmd->sense_buffer[0] |= 0x80;
	put_unaligned_be32((uint32_t)residue, &cmd->sense_buffer[3]);
	return SAM_STAT_CHECK_CONDITION;
}

static int tape_broken(struct scsi_cmd *cmd)
{
	sense_data_build(cmd, MEDIUM_ERROR, ASC_MEDIUM_FORMAT_CORRUPT);
	return SAM_STAT_CHECK_CONDITION;
}

static int tape_var_read(struct scsi_cmd *cmd, uint8_t *buf, uint32_t length, int *transferred)
{
	struct ssc_info *ssc = dtype_priv(cmd->dev);
	struct blk_header_info *h = &ssc->c_blk;
	uint32_t want = get_unaligned_be24(&cmd->scb[2]), size = h->blk_sz;
	uint32_t n = min(min(length, want), size);
	int sili = cmd->scb[1] & 2;

	*transferred = 0;
	if (h->blk_type == BLK_EOD) {
		scsi_set_in_resid_by_actual(cmd, 0);
		return tape_check(cmd, BLANK_CHECK, ASC_END_OF_DATA, want);
	}
	if (h->blk_type == BLK_FILEMARK) {
		scsi_set_in_resid_by_actual(cmd, 0);
		if (skip_next_header(cmd->dev))
			return tape_broken(cmd);
		return tape_check(cmd, NO_SENSE | TAPE_FM_BIT, ASC_MARK, want);
	}
	if (pread(cmd->dev->fd, buf, n, h->curr + SSC_BLK_HDR_SIZE) != n || skip_next_header(cmd->dev)) {
		scsi_set_in_resid_by_actual(cmd, 0);
		return tape_broken(cmd);
	}
	scsi_set_in_resid_by_actual(cmd, n);
	*transferred = n;
	if (want == size || (sili && want > size))
		return SAM_STAT_GOOD;
	return tape_check(cmd, NO_SENSE | TAPE_ILI_BIT, NO_ADDITIONAL_SENSE, (int32_t)(want - size));
}

/* c_blk is the block or mark that comes next; nothing comes before the first one */
static int tape_space(struct scsi_cmd *cmd, int32_t count, int marks)
{
	struct ssc_info *ssc = dtype_priv(cmd->dev);
	struct blk_header_info *h = &ssc->c_blk;

	while (count > 0) {
		int mark = h->blk_type == BLK_FILEMARK;
		if (h->blk_type == BLK_EOD)
			return tape_check(cmd, BLANK_CHECK, ASC_END_OF_DATA, count);
		if (skip_next_header(cmd->dev))
			return tape_broken(cmd);
		if (mark && !marks)
			return tape_check(cmd, NO_SENSE | TAPE_FM_BIT, ASC_MARK, count);
		if (mark || !marks)
			count--;
	}
	while (count < 0) {
		uint64_t here = h->curr;
		int mark;
		if (skip_prev_header(cmd->dev))
			return tape_broken(cmd);
		if (h->curr == here)            /* was the first block already */
			return tape_check(cmd, NO_SENSE | TAPE_EOM_BIT, ASC_BOM, -count);
		mark = h->blk_type == BLK_FILEMARK;
		if (mark && !marks)
			return tape_check(cmd, NO_SENSE | TAPE_FM_BIT, ASC_MARK, -count);
		if (mark || !marks)
			count++;
	}
	return SAM_STAT_GOOD;
}

static int tape_space_marks(struct scsi_cmd *cmd, int32_t count)  { return tape_space(cmd, count, 1); }
static int tape_space_blocks(struct scsi_cmd *cmd, int32_t count) { return tape_space(cmd, count, 0); }

#define resp_var_read  tape_var_read
#define space_filemark tape_space_marks
#define space_blocks   tape_space_blocks
