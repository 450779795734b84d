#include "MediaLibrary.h"
#include "MediaWriter.h"

MediaLibrary::Maker mediaJoinerMaker()
{
    return MediaWriter::make;
}
