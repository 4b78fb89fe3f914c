#pragma once

// Names of the extended attributes the storage sets on its chunk files, all in
// the file system's "user." namespace. Values are text, written and read
// through Moreld::File::ExtendedAttributes. Defined once here so that every
// component spells them the same way; the spellings are part of the on-disk
// format and must not be tidied.
namespace ExtendedAttributeNames {

// Marks a file that holds no chunk data; value "1".
inline constexpr const char* kEmptyFile = "user.__emptyFile";
// The directory a file was taken from, so that an interrupted move can be
// traced back; value is the directory path.
inline constexpr const char* kOriginDirectory = "user.originDirectory";

// Chunk-file format attributes, reserved for the platform's chunk file
// appender and reader; the storage core neither writes nor reads them.
inline constexpr const char* kFineTimecode = "user.__fine__timecode";
inline constexpr const char* kFineDuration = "user.__fine__duration";
inline constexpr const char* kFineTrackId = "user.__fine__trackId";
inline constexpr const char* kFineDataSize = "user.__fine__dataSize";
inline constexpr const char* kFineChunkNumber = "user.__fine__chunkNumber";
inline constexpr const char* kFineEnableBlocks = "user.__fine__enableBlocks";
// Prefix of the chunk-file format attributes. No leading double underscore,
// unlike its siblings: files in the field carry it so.
inline constexpr const char* kFinePrefix = "user.fine__";
inline constexpr const char* kTrackSize = "user.__trackSize";
inline constexpr const char* kFileSize = "user.__fileSize";

// Separator token kept with the names; the components that use it decide what
// it joins.
inline constexpr const char* kSeparator = ";!;";

}  // namespace ExtendedAttributeNames
